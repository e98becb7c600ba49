#pragma once

#include <memory>
#include <optional>

#include <Kelvara/Error.h>
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/Ad.h>
#include <Kelvara/base/Guarded.h>

namespace kva {

class AdLoader;

/// Hears what came of a load: exactly one call for each.
class AdLoaderDelegate {
 public:
  virtual ~AdLoaderDelegate() = default;
  /// The ad is in `adLoader.adData()`.
  virtual void adLoaderDidReceiveAd(AdLoader& adLoader) = 0;
  virtual void adLoaderDidFailToReceiveAd(AdLoader& adLoader, const Error& error) = 0;
};

/// Loads the ad of a bid that was won. Any thread; lives until its last answer has come.
class AdLoader : public std::enable_shared_from_this<AdLoader> {
 public:
  static std::shared_ptr<AdLoader> create();

  /// Not kept alive; once it is gone, outcomes are dropped.
  void setDelegate(std::weak_ptr<AdLoaderDelegate> delegate);
  /// The ad of the last load that succeeded.
  std::optional<Ad> adData() const;

  /// The delegate hears of a refusal before this returns (errors 2, 7, 4, 9), of everything else on
  /// the network session's thread. A bid is used up as soon as its request is sent, whatever comes
  /// of it.
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
