#pragma once

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Application.h>
#include <platform/headless/Device.h>
#include <support/AdRecorder.h>

#include <set>

#include "platform/linux_support.h"
#include "story/Ledger.h"

namespace kva::story {

/// One process of a host, with every call in a ledger. Transport and storage are real. The views
/// are headless; the main thread plays their pages and their user.
class Life {
 public:
  using Bid = std::shared_ptr<KVABidResponse>;

  /// Stores settings in `folder`.
  Life(const std::filesystem::path& folder, const std::string& apiBase)
      : platform_(platform(folder, apiBase)) {
    platform_.logOutput = std::make_shared<headless::HeadlessOutput>();
    platform_.application = {std::shared_ptr<void>(), &application_};
    runtime_ = std::make_unique<Runtime>(platform_);
  }
  ~Life() { end(); }

  void start(const std::string& appId) {
    auto call = ledger.open(start_);
    Kelvara::start(appId, [call](std::optional<Error> error) { call->answered(error); });
    call->returned();
  }
  /// Calls `won` with a bid on the session's thread.
  void bid(const std::string& adUnit, KVABidType kind, std::function<void(Bid)> won) {
    auto call = ledger.open(bid_);
    KVABidLoader::loadBid(adUnit, kind, [call, won](Bid bid, std::optional<Error> error) {
      if (bid) won(std::move(bid));
      call->answered(error);
    });
    call->returned();
  }
  /// Loads an ad and shows it when it is ready. Its window is destroyed once the ad is presented.
  void load(const Bid& bid, KVABidType kind) {
    const auto loading = std::make_shared<Loading>(*this, bid);
    const auto load = loading->load;
    loading->ad = test::makeAd(kind, loading);
    loadings_.with([&](auto& all) { all.push_back(loading); });
    loading->ad->loadAd(bid, 1.25);
    load->returned();
    // The thread sanitizer checks these reads against the session's writes.
    if (!loading->ad->isLoaded()) loading->ad->isLoading();
  }
  /// Plays the pages and the user until `done`; false after 30 s. Main thread.
  bool playUntil(const std::function<bool()>& done) {
    return test::spinUntil([&] {
      play();
      return done();
    });
  }
  bool settles() {
    return playUntil([this] { return ledger.isSettled(); });
  }
  /// The identifiers of the bids whose ads were presented.
  std::vector<std::string> shown() const { return shown_.get(); }
  int viewsLeft() const { return application_.liveViews() + application_.liveViewControllers(); }
  /// Destroys the runtime, which cancels the calls under way.
  void end() {
    ledger.end();
    loadings_.set({});
    runtime_ = nullptr;
  }

  Ledger ledger{
      [this] { return static_cast<LazySession&>(*platform_.urlSession).isSessionThread(); },
      [this] { return platform_.mainQueue->isMainThread(); }};

 private:
  /// The delegate of one ad. It owns the ad and its window until the last callback.
  struct Loading : test::AdListener {
    Loading(Life& of, Bid won) : life(of), bid(std::move(won)), load(of.ledger.open(of.load_)) {}

    void happened(const std::string& event, const std::optional<Error>& error) override {
      if (event == "didPresent") {
        dismissal = life.ledger.open(life.dismissal_);
        dismissal->returned();
        life.shown_.with([&](auto& shown) { shown.push_back(bid->bidId()); });
      }
      if (event.ends_with("Receive")) load->answered(error);
      if (event.ends_with("Present")) show->answered(error);
      if (event == "didDismiss") dismissal->answered(error);
      if (event == "didReceive") life.show(*this);
      if (error || event == "didDismiss") isOver = true;
    }

    Life& life;
    const Bid bid;
    std::shared_ptr<KVAAd> ad;
    std::shared_ptr<headless::HeadlessWindow> window;
    std::shared_ptr<Ledger::Call> load, show, dismissal;
    std::atomic<bool> isOver = false;
  };

  static Platform platform(const std::filesystem::path& folder, const std::string& apiBase) {
    const auto bundle = folder / "KelvaraResources.bundle";
    if (!std::filesystem::exists(bundle))
      std::filesystem::create_directory_symlink(KELVARA_RESOURCES, bundle);
    auto options = test::hostOptions(folder, apiBase);
    options.mainBundle = folder;
    options.reachability = ReachabilityPolicy::assumeReachable;
    return makeLinuxPlatform(options).ports;
  }

  void show(Loading& loading) {
    loading.show = ledger.open(show_);
    loading.window = application_.makeWindow();
    loading.ad->showAdFrom(loading.window->viewController());
    loading.show->returned();
  }

  /// Plays WebKit and the user: every page with a document finishes loading and reports its assets
  /// as loaded, and windows with a presented ad are destroyed.
  void play() {
    time_.advance(0.05);
    for (const auto& page : application_.webViews()) {
      if (page->html().empty() || !played_.insert(page).second) continue;
      page->finishNavigation();
      page->navigate("kva://preloadComplete");
    }
    const auto loadings = loadings_.get();  // a copy, so they are destroyed outside the lock
    for (const auto& loading : loadings)
      if (loading->dismissal && !loading->window->isDestroyed()) loading->window->destroy();
    loadings_.with([](auto& all) {
      std::erase_if(all, [](const auto& loading) { return loading->isOver.load(); });
    });
  }

  /// Adds the codes of the server's error records in the soak, and -1 for an answer without a
  /// usable record.
  static std::set<std::int64_t> withServerCodes(std::set<std::int64_t> codes) {
    codes.insert({-1, 400, 403, 404, 409, 429, 500, 503});
    return codes;
  }

  // A second start succeeds before it returns.
  const Promise start_{.name = "start",
                       .refusals = {4, 14},
                       .failures = withServerCodes({}),
                       .mayAnswerAtOnce = true};
  const Promise bid_{.name = "bid", .refusals = {2, 3, 4, 8}, .failures = withServerCodes({5})};
  const Promise load_{.name = "load",
                      .refusals = {2, 4, 7, 9},
                      .failures = withServerCodes({11}),
                      .succeedsOnMainThread = true};
  const Promise show_{.name = "show", .succeedsOnMainThread = true};
  const Promise dismissal_{.name = "dismissal", .succeedsOnMainThread = true};

  headless::VirtualTime time_;
  headless::HeadlessApplication application_{time_};
  std::set<std::weak_ptr<headless::HeadlessWebView>, std::owner_less<>> played_;
  Guarded<std::vector<std::shared_ptr<Loading>>> loadings_;
  Guarded<std::vector<std::string>> shown_;
  Platform platform_;
  std::unique_ptr<Runtime> runtime_;
};

}  // namespace kva::story
