#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/Export.h>

namespace kva {

/// The full-screen kind that a bid is for.
enum class KVABidType : int { interstitial = 0, rewarded = 1 };

/// A bid that this SDK makes to the host. Give it back to `loadAd` when it wins, to
/// `KVABidLoader::sendBidLost` when it does not. Thread-safe.
class KVA_EXPORT KVABidResponse {
 public:
  KVABidResponse() = delete;
  KVABidResponse(std::string planId, std::string bidId, double price);

  /// The bid's price in the server's currency unit per thousand impressions.
  double price() const { return price_; }
  void setPrice(double price) { price_ = price; }

  /// Identifiers of the SDK's own: the selected plan and the bid.
  const std::string& planId() const { return planId_; }
  const std::string& bidId() const { return bidId_; }
  /// True exactly when both identifiers are UUIDs.
  bool isValid() const;

 private:
  std::string planId_;
  std::string bidId_;
  std::atomic<double> price_;
};

/// Asks for bids. Thread-safe.
struct KVA_EXPORT KVABidLoader {
  /// Asks for a bid for the ad unit (a UUID). `completion` runs exactly once with either a bid or
  /// an error: before `loadBid` returns when it is refused (codes 2, 3, 4, 8), otherwise on the
  /// network session's thread. It must not throw, and not wait for the main thread while the
  /// `gtk::Host` is destroyed.
  static void loadBid(
      std::string adUnit, KVABidType bidType,
      std::function<void(std::shared_ptr<KVABidResponse>, std::optional<Error>)> completion);
  /// Tells the server that the bid lost against `clearingPrice` (finite). The outcome is only
  /// logged.
  static void sendBidLost(std::shared_ptr<KVABidResponse> bidResponse, double clearingPrice);
};

}  // namespace kva
