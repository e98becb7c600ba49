#pragma once

#include <memory>
#include <optional>

#include <Kelvara/Error.h>
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/Ad.h>
#include <Kelvara/base/Guarded.h>

namespace kva {

class AdLoader;

/// Receives the outcome of each load: exactly one call per load.
class AdLoaderDelegate {
 public:
  virtual ~AdLoaderDelegate() = default;
  /// The ad is in `adLoader.adData()`.
  virtual void adLoaderDidReceiveAd(AdLoader& adLoader) = 0;
  virtual void adLoaderDidFailToReceiveAd(AdLoader& adLoader, const Error& error) = 0;
};

/// Loads the ad of a won bid. Any thread. Pending requests keep the loader alive.
class AdLoader : public std::enable_shared_from_this<AdLoader> {
 public:
  static std::shared_ptr<AdLoader> create();

  /// Held weakly. Outcomes are dropped once the delegate is destroyed.
  void setDelegate(std::weak_ptr<AdLoaderDelegate> delegate);
  /// The ad of the last successful load.
  std::optional<Ad> adData() const;

  /// Notifies the delegate before it returns if it refuses, in this order of checks, with
  /// `sdkNotInitialized`, `invalidBidResponse`, `noInternetConnection` or `bidResponseAlreadyUsed`;
  /// otherwise on the network session's thread. Sending the request uses the bid up, even if the
  /// request fails.
  void load(const std::shared_ptr<KVABidResponse>& bidResponse, double clearingPrice);

 private:
  struct State {
    std::weak_ptr<AdLoaderDelegate> delegate;
    std::optional<Ad> adData;
  };

  AdLoader() = default;
  void receive(Ad ad);
  void fail(const Error& error);
  std::shared_ptr<AdLoaderDelegate> delegate() const;

  Guarded<State> state_;
};

}  // namespace kva
