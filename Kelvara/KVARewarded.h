#pragma once

#include <memory>

#include <Kelvara/KVAAd.h>

namespace kva {

class KVARewarded;

/// All methods are optional. They must not throw. `KVAAd` states their threads.
class KVA_EXPORT KVARewardedDelegate {
 public:
  virtual ~KVARewardedDelegate() = default;
  virtual void rewardedDidReceive(KVARewarded&) {}  ///< ready to be shown
  virtual void rewardedDidFailToReceive(KVARewarded&, const Error&) {}
  virtual void rewardedDidPresent(KVARewarded&) {}
  virtual void rewardedDidFailToPresent(KVARewarded&, const Error&) {}
  virtual void rewardedDidClick(KVARewarded&) {}
  virtual void rewardedDidComplete(KVARewarded&) {}  ///< the reward is earned
  virtual void rewardedDidDismiss(KVARewarded&) {}

 private:
  // Later versions replace these by new methods, which hosts of this version do not implement.
  virtual void reserved1() {}
  virtual void reserved2() {}
  virtual void reserved3() {}
  virtual void reserved4() {}
};

/// A full-screen ad that earns the user a reward.
class KVA_EXPORT KVARewarded : public KVAAd, public std::enable_shared_from_this<KVARewarded> {
 public:
  static std::shared_ptr<KVARewarded> create();
  ~KVARewarded() override;

  /// The ad does not own its delegate. Any thread.
  void setDelegate(std::weak_ptr<KVARewardedDelegate> delegate);

 private:
  KVARewarded();
};

}  // namespace kva
