#pragma once

#include <memory>

#include <Kelvara/KVAAd.h>

namespace kva {

class KVAInterstital;

/// All methods are optional. They must not throw. `KVAAd` states their threads.
class KVA_EXPORT KVAInterstitialDelegate {
 public:
  virtual ~KVAInterstitialDelegate() = default;
  virtual void interstitialDidReceive(KVAInterstital&) {}  ///< ready to be shown
  virtual void interstitialDidFailToReceive(KVAInterstital&, const Error&) {}
  virtual void interstitialDidPresent(KVAInterstital&) {}
  virtual void interstitialDidFailToPresent(KVAInterstital&, const Error&) {}
  virtual void interstitialDidClick(KVAInterstital&) {}
  virtual void interstitialDidDismiss(KVAInterstital&) {}

 private:
  // Later versions replace these by new methods, which hosts of this version do not implement.
  virtual void reserved1() {}
  virtual void reserved2() {}
  virtual void reserved3() {}
  virtual void reserved4() {}
};

/// A full-screen ad that the user may skip or close.
/// The name, one letter short of its delegate's, is intended.
class KVA_EXPORT KVAInterstital : public KVAAd,
                                  public std::enable_shared_from_this<KVAInterstital> {
 public:
  static std::shared_ptr<KVAInterstital> create();
  ~KVAInterstital() override;

  /// The ad does not own its delegate. Any thread.
  void setDelegate(std::weak_ptr<KVAInterstitialDelegate> delegate);

 private:
  KVAInterstital();
};

}  // namespace kva
