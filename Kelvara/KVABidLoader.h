#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>

namespace kva {

/// The kind of full-screen ad that a bid is for.
enum class KVABidType : int { interstitial = 0, rewarded = 1 };

/// A bid that the SDK offers to the host. If it wins, pass it to `KVAAd::loadAd`; if it loses, to
/// `KVABidLoader::sendBidLost`. Thread-safe.
class KVA_EXPORT KVABidResponse {
 public:
  KVABidResponse() = delete;
  KVABidResponse(std::string planId, std::string bidId, double price);
  ~KVABidResponse();
  KVABidResponse(const KVABidResponse&) = delete;
  KVABidResponse& operator=(const KVABidResponse&) = delete;

  /// The bid's price in the server's currency unit per thousand impressions.
  double price() const;
  void setPrice(double price);

  /// The selected plan and the bid, as the SDK identifies them.
  const std::string& planId() const;
  const std::string& bidId() const;
  /// True if both identifiers are UUIDs.
  bool isValid() const;

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

/// Requests bids. Thread-safe.
struct KVA_EXPORT KVABidLoader {
  /// Requests a bid for the ad unit (a UUID). `completion` runs exactly once, with a bid or an
  /// error. A refusal (`sdkNotInitialized`, `invalidAdUnit`, `noInternetConnection` or
  /// `requestTooSoon` of `KVAErrorCodes`) completes before `loadBid` returns. Everything else
  /// completes on the network session's thread. `completion` must not throw. While the `gtk::Host`
  /// is destroyed, it must not wait for the main thread.
  static void loadBid(
      std::string adUnit, KVABidType bidType,
      std::function<void(std::shared_ptr<KVABidResponse>, std::optional<Error>)> completion);
  /// Reports to the server that the bid lost against `clearingPrice` (finite). The outcome is only
  /// logged.
  static void sendBidLost(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
};

}  // namespace kva
