#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kva::check {

struct Options {
  std::string baseURL;  ///< ends in "/api/v1"
  std::string application, interstitial, rewarded;
  std::string unitWithoutDemand{};  ///< an ad unit that nobody bids for; empty leaves that out
  double timeoutSeconds = 60;       ///< what the SDK itself waits
};

/// What a server's author has to mend.
struct Finding {
  std::string call;      ///< "/bid/init"
  std::string problem;   ///< "data.plans[0].ecpm: expected an integer from 0, got \"7\""
  std::string sentence;  ///< what the contract says
};

/// One thing that a client meets.
struct Step {
  std::string call, name;
  std::vector<Finding> findings;  ///< empty when the server keeps the contract
};

/// Plays a fresh installation of the SDK against the server, with the SDK's own request code, and
/// returns every step. Calls `onStep` after each. On the main thread, without a Runtime.
std::vector<Step> checkServer(
    const Options& options, const std::function<void(const Step&)>& onStep = [](const Step&) {});

}  // namespace kva::check
