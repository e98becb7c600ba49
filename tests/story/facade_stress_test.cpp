// Eight threads of a host call everything that a host can call, while answers arrive, pages load
// and ads are shown. Made for the thread sanitizer.
//   KELVARA_SEED  which choices (1)
#include <Kelvara/Kelvara.h>
#include <gtest/gtest.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include <iostream>

#include "story/Chance.h"
#include "story/Life.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 8;
constexpr int kSteps = 60;  ///< of each thread

/// Most bids win, and their ads are loaded from the answer's thread; some lose, and some ads are
/// let go at once, so that nobody hears of them.
void bid(Life& life, Chance& chance) {
  const auto kind = chance.oneIn(3) ? KVABidType::rewarded : KVABidType::interstitial;
  const auto unit =
      kind == KVABidType::rewarded ? sandbox::kRewardedAdUnit : sandbox::kInterstitialAdUnit;
  const bool isLost = chance.oneIn(5), isAbandoned = chance.oneIn(5);
  life.bid(chance.oneIn(10) ? "no ad unit" : std::string(unit), kind, [=, &life](Life::Bid won) {
    if (isLost) return KVABidLoader::sendBidLost(won, 9.75);
    if (isAbandoned) return KVARewarded::create()->loadAd(won, 1.25);
    life.load(won, kind);
  });
}

void step(Life& life, Chance& chance) {
  switch (chance.below(10)) {
    case 0:
      return life.start(chance.oneIn(3) ? "no application id"
                                        : std::string(sandbox::kApplicationId));
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
      return bid(life, chance);
  }
}

TEST(FacadeStress, EightThreadsCallEverythingWhileAnswersArrive) {
  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  std::cout << "KELVARA_SEED=" << seed << std::endl;
  const test::TemporaryFolder folder;
  sandbox::Server server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100}});
  ASSERT_TRUE(server.start());
  Life life(folder.path, server.baseURL(), {500});
  std::atomic<int> running = kThreads;
  {
    std::vector<std::jthread> threads;
    for (int number = 0; number < kThreads; ++number)
      threads.emplace_back([&, number] {
        Chance chance(seed * kThreads + static_cast<std::uint64_t>(number));
        for (int i = 0; i < kSteps; ++i) {
          step(life, chance);
          if (chance.oneIn(4)) std::this_thread::sleep_for(1ms);
        }
        --running;
      });
    life.start(std::string(sandbox::kApplicationId));
    EXPECT_TRUE(life.playUntil([&] { return running == 0 && life.ledger.isSettled(); }))
        << "calls are not answered";
  }
  const auto books = life.ledger.books();
  for (const auto& complaint : books.complaints) ADD_FAILURE() << complaint;
  for (const char* outcome :
       {"bid: success", "load: success", "show: success", "dismissal: success"})
    EXPECT_TRUE(books.outcomes.contains(outcome)) << outcome;
  EXPECT_TRUE(life.playUntil([&] { return life.viewsLeft() == 0; }))
      << life.viewsLeft() << " views are left";
}

}  // namespace
}  // namespace kva::story
