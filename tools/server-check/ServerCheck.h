#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kva::check {

struct Options {
  std::string baseURL;  ///< ends in "/api/v1"
  std::string application, interstitial, rewarded;
  std::string unitWithoutDemand{};  ///< an ad unit without bids; empty skips its step
  double timeoutSeconds = 60;       ///< the SDK's own time-out
};

/// A fault that the server's author has to fix.
struct Finding {
  std::string call;      ///< "/bid/init"
  std::string problem;   ///< "data.plans[0].ecpm: expected an integer from 0, got \"7\""
  std::string sentence;  ///< the contract's description
};

/// One situation of a client.
struct Step {
  std::string call, name;
  std::vector<Finding> findings;  ///< empty when the server keeps the contract
};

/// Runs a new installation of the SDK against the server, with the SDK's request code, and returns
/// every step. Calls `onStep` after each. Main thread; no Runtime may exist.
std::vector<Step> checkServer(
    const Options& options, const std::function<void(const Step&)>& onStep = [](const Step&) {});

}  // namespace kva::check
