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

/// A host that does what hosts do, for as long as one process would live, with every call in its
/// ledger. Real transport and storage; the views are those of a headless application, whose pages
/// and user the main thread plays.
class Life {
 public:
  using Bid = std::shared_ptr<KVABidResponse>;

  /// With settings in `folder`; `serverCodes` are those of the error records that may come.
  Life(const std::filesystem::path& folder, const std::string& apiBase,
       const std::set<std::int64_t>& serverCodes);
  ~Life() { end(); }

  void start(const std::string& appId);
  /// `won` hears of a bid on the thread that answers.
  void bid(const std::string& adUnit, KVABidType kind, std::function<void(Bid)> won);
  /// Loads an ad that is shown when it is ready, and whose window goes away once it has come.
  void load(const Bid& bid, KVABidType kind);
  /// Plays the pages and the user on the main thread until `done`; false after half a minute.
  bool playUntil(const std::function<bool()>& done);
  bool settles() {
    return playUntil([this] { return ledger.isSettled(); });
  }
  /// The bids whose ads were presented.
  std::vector<std::string> shown() const { return shown_.get(); }
  int viewsLeft() const { return application_.liveViews() + application_.liveViewControllers(); }
  /// Ends the process, whatever is under way.
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
