#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include <Kelvara/platform/URLSession.h>

#include "api/Contract.h"

namespace kva::check {

/// One request of the SDK, and its reply.
struct Exchange {
  std::string path;            ///< "/bid/init"
  nlohmann::json fields;       ///< of the request
  nlohmann::json reply;        ///< the envelope; null when there is none
  std::optional<Error> error;  ///< of the transport
  std::vector<contract::Breach> requestBreaches, replyBreaches;
};

/// A session that records requests and replies and checks them against the contract. It does not
/// pass a reply that breaks the contract to the SDK, because some of them are fatal there.
class Recorder final : public URLSession {
 public:
  Recorder(std::shared_ptr<URLSession> session, std::string baseURL, double timeoutSeconds);

  void send(URLRequest request, Done done) override;
  void invalidate() override { session_->invalidate(); }

  /// Waits until no request is in flight, and returns the exchanges since the last call.
  std::vector<Exchange> takeExchanges();

 private:
  Exchange begin(const URLRequest& request) const;
  void finish(Exchange exchange, Outcome outcome, Done done);

  const std::shared_ptr<URLSession> session_;
  const std::string baseURL_;
  const double timeout_;
  std::mutex mutex_;
  std::condition_variable idle_;
  int inFlight_ = 0;
  std::vector<Exchange> exchanges_;
};

}  // namespace kva::check
