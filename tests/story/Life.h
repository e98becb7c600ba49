#pragma once

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Application.h>
#include <platform/linux/LinuxPlatform.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/linux_support.h"
#include "story/Ledger.h"

namespace kva::story {

/// One process of a host, with every call in a ledger. Transport and storage are real. The views
/// are headless; the main thread plays their pages and their user.
class Life {
 public:
  using Bid = std::shared_ptr<KVABidResponse>;

  /// Stores settings in `folder`. `serverCodes` are the codes of the error records that may come.
  Life(const std::filesystem::path& folder, const std::string& apiBase,
       const std::set<std::int64_t>& serverCodes);
  ~Life() { end(); }

  void start(const std::string& appId);
  /// Calls `won` with a bid on the session's thread.
  void bid(const std::string& adUnit, KVABidType kind, std::function<void(Bid)> won);
  /// Loads an ad and shows it when it is ready. Its window is destroyed once the ad is presented.
  void load(const Bid& bid, KVABidType kind);
  /// Plays the pages and the user until `done`; false after 30 s. Main thread.
  bool playUntil(const std::function<bool()>& done);
  bool settles() {
    return playUntil([this] { return ledger.isSettled(); });
  }
  /// The identifiers of the bids whose ads were presented.
  std::vector<std::string> shown() const { return shown_.get(); }
  int viewsLeft() const { return application_.liveViews() + application_.liveViewControllers(); }
  /// Destroys the runtime, which cancels the calls under way.
  void end();

  Ledger ledger;

 private:
  struct Loading;
  static Platform platform(const std::filesystem::path& folder, const std::string& apiBase);
  void play();
  void show(Loading& loading);

  const Promise start_, bid_, load_, show_, dismissal_;
  headless::VirtualTime time_;
  headless::HeadlessApplication application_{time_};
  std::set<std::weak_ptr<headless::HeadlessWebView>, std::owner_less<>> played_;
  Guarded<std::vector<std::shared_ptr<Loading>>> loadings_;
  Guarded<std::vector<std::string>> shown_;
  Platform platform_;
  std::unique_ptr<Runtime> runtime_;
};

}  // namespace kva::story
