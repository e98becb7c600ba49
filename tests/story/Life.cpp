#include "story/Life.h"

#include <Kelvara/Kelvara.h>
#include <platform/headless/Device.h>
#include <platform/linux/CurlSession.h>

#include <algorithm>
#include <utility>

namespace kva::story {
namespace {

std::set<std::int64_t> with(std::set<std::int64_t> codes, std::int64_t code) {
  codes.insert(code);
  return codes;
}

}  // namespace

/// The delegate of one ad. It owns the ad and its window until the last callback.
struct Life::Loading : KVAInterstitialDelegate, KVARewardedDelegate {
  Loading(Life& of, Bid won) : life(of), bid(std::move(won)), load(of.ledger.open(of.load_)) {}

  void received() {
    load->answered(std::nullopt);
    life.show(*this);
  }
  void failedToReceive(const Error& error) {
    load->answered(error);
    isOver = true;
  }
  void presented() {
    dismissal = life.ledger.open(life.dismissal_);
    dismissal->returned();
    life.shown_.with([&](auto& shown) { shown.push_back(bid->bidId()); });
    show->answered(std::nullopt);
  }
  void failedToPresent(const Error& error) {
    show->answered(error);
    isOver = true;
  }
  void dismissed() {
    dismissal->answered(std::nullopt);
    isOver = true;
  }

  void interstitialDidReceive(KVAInterstital&) override { received(); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& e) override {
    failedToReceive(e);
  }
  void interstitialDidPresent(KVAInterstital&) override { presented(); }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& e) override {
    failedToPresent(e);
  }
  void interstitialDidDismiss(KVAInterstital&) override { dismissed(); }
  void rewardedDidReceive(KVARewarded&) override { received(); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& e) override { failedToReceive(e); }
  void rewardedDidPresent(KVARewarded&) override { presented(); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& e) override { failedToPresent(e); }
  void rewardedDidDismiss(KVARewarded&) override { dismissed(); }

  Life& life;
  const Bid bid;
  std::shared_ptr<KVAAd> ad;
  std::shared_ptr<headless::HeadlessWindow> window;
  std::shared_ptr<Ledger::Call> load, show, dismissal;
  std::atomic<bool> isOver = false;
};

Platform Life::platform(const std::filesystem::path& folder, const std::string& apiBase) {
  const auto bundle = folder / "KelvaraResources.bundle";
  if (!std::filesystem::exists(bundle))
    std::filesystem::create_directory_symlink(KELVARA_RESOURCES, bundle);
  auto options = test::hostOptions(folder, apiBase);
  options.mainBundle = folder;
  options.reachability = ReachabilityPolicy::assumeReachable;
  return makeLinuxPlatform(options).ports;
}

Life::Life(const std::filesystem::path& folder, const std::string& apiBase,
           const std::set<std::int64_t>& serverCodes)
    : ledger(
          [this] { return static_cast<NetworkSession&>(*platform_.urlSession).isSessionThread(); },
          [this] { return platform_.mainQueue->isMainThread(); }),
      // A second start succeeds before it returns.
      start_{
          .name = "start", .refusals = {4, 14}, .failures = serverCodes, .mayAnswerAtOnce = true},
      bid_{.name = "bid", .refusals = {2, 3, 4, 8}, .failures = with(serverCodes, 5)},
      load_{.name = "load",
            .refusals = {2, 4, 7, 9},
            .failures = with(serverCodes, 11),
            .succeedsOnMainThread = true},
      show_{.name = "show", .succeedsOnMainThread = true},
      dismissal_{.name = "dismissal", .succeedsOnMainThread = true},
      platform_(platform(folder, apiBase)) {
  platform_.logOutput = std::make_shared<headless::HeadlessOutput>();
  platform_.application = {std::shared_ptr<void>(), &application_};
  runtime_ = std::make_unique<Runtime>(platform_);
}

void Life::start(const std::string& appId) {
  auto call = ledger.open(start_);
  Kelvara::start(appId, [call](std::optional<Error> error) { call->answered(error); });
  call->returned();
}

void Life::bid(const std::string& adUnit, KVABidType kind, std::function<void(Bid)> won) {
  auto call = ledger.open(bid_);
  KVABidLoader::loadBid(adUnit, kind, [call, won](Bid bid, std::optional<Error> error) {
    if (bid) won(std::move(bid));
    call->answered(error);
  });
  call->returned();
}

void Life::load(const Bid& bid, KVABidType kind) {
  const auto loading = std::make_shared<Loading>(*this, bid);
  const auto load = loading->load;
  const auto prepare = [&](const auto& ad) {
    ad->setDelegate(loading);
    loading->ad = ad;
  };
  if (kind == KVABidType::interstitial) {
    prepare(KVAInterstital::create());
  } else {
    prepare(KVARewarded::create());
  }
  loadings_.with([&](auto& all) { all.push_back(loading); });
  loading->ad->loadAd(bid, 1.25);
  load->returned();
  // The thread sanitizer checks these reads against the session's writes.
  if (!loading->ad->isLoaded()) loading->ad->isLoading();
}

void Life::show(Loading& loading) {
  loading.show = ledger.open(show_);
  loading.window = application_.makeWindow();
  loading.ad->showAdFrom(loading.window->viewController());
  loading.show->returned();
}

bool Life::playUntil(const std::function<bool()>& done) {
  return test::spinUntil([&] {
    play();
    return done();
  });
}

/// Plays WebKit and the user: every page with a document finishes loading and reports its assets
/// as loaded, and windows with a presented ad are destroyed.
void Life::play() {
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

void Life::end() {
  ledger.end();
  loadings_.set({});
  runtime_ = nullptr;
}

}  // namespace kva::story
