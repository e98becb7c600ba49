// Eight threads of a host call everything that a host can call, while answers arrive and pages
// load. Real transport and storage; the views are those of the headless application, whose pages
// the main thread plays. Made for the thread sanitizer.
//   KELVARA_SEED  which choices (1)
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <platform/headless/Application.h>
#include <platform/linux/CurlSession.h>
#include <platform/linux/LinuxPlatform.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include <iostream>
#include <set>

#include "platform/linux_support.h"
#include "story/Chance.h"
#include "story/Ledger.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 8;
constexpr int kSteps = 60;  ///< of each thread

const Promise kStart{.name = "start", .refusals = {4, 14}, .mayAnswerAtOnce = true};
const Promise kBid{.name = "bid", .refusals = {2, 3, 4, 8}, .failures = {500}};
const Promise kLoad{
    .name = "load", .refusals = {2, 4, 7, 9}, .failures = {500, 11}, .succeedsOnMainThread = true};

/// A host's delegate for one load of one ad, and all that keeps both alive until it is answered.
struct Loading : KVAInterstitialDelegate, KVARewardedDelegate {
  void interstitialDidReceive(KVAInterstital&) override { call->answered(std::nullopt); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override {
    call->answered(error);
  }
  void rewardedDidReceive(KVARewarded&) override { call->answered(std::nullopt); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& error) override {
    call->answered(error);
  }
  std::shared_ptr<Ledger::Call> call;
  std::shared_ptr<KVAAd> ad;
};

class FacadeStress : public testing::Test {
 protected:
  FacadeStress() : server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100}}) {}
  void SetUp() override {
    ASSERT_TRUE(server.start());
    std::filesystem::create_directory_symlink(KELVARA_RESOURCES,
                                              folder.path / "KelvaraResources.bundle");
    LinuxOptions options;
    options.bundleId = "org.kelvara.stress";
    options.appVersion = "1.0";
    options.mainBundle = folder.path;
    options.userDefaults = folder.path / "defaults.sqlite";
    options.apiBases = {.production = server.baseURL(), .sandbox = server.baseURL()};
    options.reachability = ReachabilityPolicy::assumeReachable;
    Platform ports = makeLinuxPlatform(options).ports;
    ports.application = {std::shared_ptr<void>(), &application};
    const auto session = std::static_pointer_cast<CurlSession>(ports.urlSession);
    const auto mainQueue = ports.mainQueue;
    ledger = std::make_unique<Ledger>([session] { return session->isSessionThread(); },
                                      [mainQueue] { return mainQueue->isMainThread(); });
    runtime = std::make_unique<Runtime>(std::move(ports));
  }

  void start(const std::string& appId);
  void bid(Chance& chance);
  template <class Ad>
  void load(std::shared_ptr<KVABidResponse> bid, bool isAbandoned);
  void step(Chance& chance);
  void playPages();

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  test::TemporaryFolder folder;
  sandbox::Server server;
  headless::VirtualTime time;
  headless::HeadlessApplication application{time};
  std::unique_ptr<Ledger> ledger;
  Guarded<std::vector<std::shared_ptr<Loading>>> loadings;
  std::set<std::shared_ptr<headless::HeadlessWebView>> finished;
  std::unique_ptr<Runtime> runtime;
};

void FacadeStress::start(const std::string& appId) {
  auto call = ledger->open(kStart);
  Kelvara::start(appId, [call](std::optional<Error> error) { call->answered(error); });
  call->returned();
}

/// Most bids win, and their ads are loaded from the answer's thread; some lose.
void FacadeStress::bid(Chance& chance) {
  const bool isRewarded = chance.oneIn(3);
  const bool isLost = chance.oneIn(5), isAbandoned = chance.oneIn(5), isInvalid = chance.oneIn(10);
  const auto unit = isRewarded ? sandbox::kRewardedAdUnit : sandbox::kInterstitialAdUnit;
  auto call = ledger->open(kBid);
  KVABidLoader::loadBid(isInvalid ? "no ad unit" : std::string(unit),
                        isRewarded ? KVABidType::rewarded : KVABidType::interstitial,
                        [=, this](std::shared_ptr<KVABidResponse> won, std::optional<Error> error) {
                          if (won && isLost) KVABidLoader::sendBidLost(won, 9.75);
                          if (won && !isLost && isRewarded) load<KVARewarded>(won, isAbandoned);
                          if (won && !isLost && !isRewarded) load<KVAInterstital>(won, isAbandoned);
                          call->answered(error);
                        });
  call->returned();
}

/// An ad that is abandoned is let go at once, and nobody hears of it.
template <class Ad>
void FacadeStress::load(std::shared_ptr<KVABidResponse> bid, bool isAbandoned) {
  const auto ad = Ad::create();
  if (isAbandoned) return ad->loadAd(std::move(bid), 1.25);
  const auto loading = std::make_shared<Loading>();
  loading->ad = ad;
  loading->call = ledger->open(kLoad);
  ad->setDelegate(loading);
  loadings.with([&](auto& all) { all.push_back(loading); });
  ad->loadAd(std::move(bid), 1.25);
  loading->call->returned();
  EXPECT_TRUE(ad->isLoading() || ad->isLoaded());
}

void FacadeStress::step(Chance& chance) {
  switch (chance.below(10)) {
    case 0:
      return start(chance.oneIn(3) ? "no application id" : std::string(sandbox::kApplicationId));
    case 1:
      return Kelvara::setUserId("user " + std::to_string(chance.below(9)));
    case 2:
      return Kelvara::setUserConsent(chance.oneIn(2));
    case 3:
      Kelvara::setUserChild(chance.oneIn(2));
      return Kelvara::setSubjectToGDPR(chance.oneIn(2));
    case 4:
      return Kelvara::setSubjectToCCPA(chance.oneIn(2));
    case 5:
      Kelvara::isInitialized();
      return KVABidLoader::sendBidLost(nullptr, 1);
    default:
      return bid(chance);
  }
}

/// What WebKit would do: every page that was given its document finishes loading, and a page of the
/// sandbox's says when it has its assets.
void FacadeStress::playPages() {
  g_main_context_iteration(nullptr, FALSE);
  time.run();
  for (const auto& page : application.webViews()) {
    if (page->html().empty() || !finished.insert(page).second) continue;
    page->finishNavigation();
    page->navigate("kva://preloadComplete");
  }
}

TEST_F(FacadeStress, EightThreadsCallEverythingWhileAnswersArrive) {
  std::cout << "KELVARA_SEED=" << seed << std::endl;
  std::atomic<int> running = kThreads;
  {
    std::vector<std::jthread> threads;
    for (int number = 0; number < kThreads; ++number)
      threads.emplace_back([this, number, &running] {
        Chance chance(seed * kThreads + static_cast<std::uint64_t>(number));
        for (int i = 0; i < kSteps; ++i) {
          step(chance);
          if (chance.oneIn(4)) std::this_thread::sleep_for(1ms);
        }
        --running;
      });
    start(std::string(sandbox::kApplicationId));
    EXPECT_TRUE(test::spinMainLoopUntil([&] {
      playPages();
      return running == 0 && ledger->isSettled();
    })) << "calls are not answered";
  }
  const auto books = ledger->books();
  for (const auto& complaint : books.complaints) ADD_FAILURE() << complaint;
  const auto& outcomes = books.outcomes;
  EXPECT_TRUE(outcomes.contains("bid: success") && outcomes.contains("load: success"));

  // Ads may go on any thread; their views go on the main one.
  std::jthread([this] { loadings.set({}); }).join();
  finished.clear();
  EXPECT_TRUE(test::spinMainLoopUntil([&] {
    playPages();
    finished.clear();
    return application.liveViews() == 0 && application.liveViewControllers() == 0;
  })) << application.liveViews()
      << " views are left";
  runtime = nullptr;
}

}  // namespace
}  // namespace kva::story
