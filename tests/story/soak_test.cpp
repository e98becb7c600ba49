// The SDK lives through many processes on the real transport, while the server and the network fail
// in every way that the sandbox knows. All choices come from a seed.
//   KELVARA_EXCHANGES  how many requests (400)      KELVARA_SEED  which choices (1)
#include <Kelvara/Kelvara.h>
#include <Kelvara/reporting/ReportManager.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Schema.h>
#include <sandbox/Server.h>

#include <iostream>

#include "story/Chance.h"
#include "story/Life.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using sandbox::Behaviour;
using sandbox::Scenario;

/// Members that the server may spoil. Not the bid identifier of an answer with plans, without which
/// the SDK stops the process as documented, and not the periods of the application.
const std::pair<std::string_view, std::vector<const char*>> kKeys[] = {
    {"*", {"ok", "err", "time", "data"}},
    {"/init", {"data.pp", "data.tmpv", "data.tids.0.idfa"}},
    {"/register", {"data.uid"}},
    {"/update", {"data.aid"}},
    {"/bid/init", {"data.plans", "data.plans.1.ecpm"}},
    {"/bid/load", {"data.crea.adur", "data.crea.bton", "data.fls.0.furl", "data.tmpl"}},
    {"/template", {"data.html", "data.tver"}},
    {"/track", {"data.plan"}}};
/// A reset counts for a hang, which would take the client's 60 s.
constexpr Behaviour kBehaviours[] = {
    Behaviour::normal,        Behaviour::noFill,        Behaviour::serverError,
    Behaviour::notOk,         Behaviour::missingKey,    Behaviour::wrongType,
    Behaviour::malformed,     Behaviour::emptyBody,     Behaviour::http500,
    Behaviour::reset,         Behaviour::throttled,     Behaviour::truncated,
    Behaviour::cutHead,       Behaviour::resetBody,     Behaviour::garbageBefore,
    Behaviour::garbageWithin, Behaviour::repeatedBytes, Behaviour::repeatedAnswer};

/// The bids of one life.
struct Won {
  struct Open {
    Life::Bid bid;
    KVABidType kind;
  };
  Guarded<std::map<std::string, std::string>> adUnitOf;  ///< by bid
  Guarded<std::vector<Open>> open;                       ///< neither loaded nor lost

  /// Removes and returns the last open bid, or an empty one.
  Open take() {
    return open.with([](auto& bids) -> Open {
      if (bids.empty()) return {};
      auto last = std::move(bids.back());
      bids.pop_back();
      return last;
    });
  }
};

void bid(Life& life, Won& won, const sandbox::CatalogueAdUnit& unit) {
  const auto kind = unit.adType == "rewarded" ? KVABidType::rewarded : KVABidType::interstitial;
  const std::string id(unit.id);
  life.bid(id, kind, [&won, id, kind](const Life::Bid& bid) {
    won.adUnitOf.with([&](auto& units) { units[bid->bidId()] = id; });
    won.open.with([&](auto& bids) { bids.push_back({bid, kind}); });
  });
}

/// One call of a host. Any thread.
void doSomething(Life& life, Won& won, Chance& chance) {
  const auto shown = life.shown();
  switch (chance.below(13)) {
    case 0:
    case 1:
    case 2:
      return bid(life, won, chance.oneOf(sandbox::adUnits()));
    case 3:
    case 4:
    case 5: {
      const auto [bid, kind] = won.take();
      if (bid) life.load(bid, kind);
      if (bid && chance.oneIn(4)) life.load(bid, kind);  // which is refused
      return;
    }
    case 6:
      return KVABidLoader::sendBidLost(won.take().bid, 2.25);
    case 7:
      if (!shown.empty())
        ReportManager::shared().trackAction(chance.oneOf(shown), {BidReportAction::click});
      return;
    case 8:
      return life.start(chance.oneIn(3) ? "no application id"
                                        : std::string(sandbox::kApplicationId));
    case 9:
      return life.bid("no ad unit", KVABidType::rewarded, [](auto) {});
    case 10:
      if (const auto abandoned = won.take().bid) KVARewarded::create()->loadAd(abandoned, 1.25);
      return;
    case 11:
      Kelvara::setUserId("user " + std::to_string(chance.below(9)));
      return Kelvara::setUserConsent(chance.oneIn(2));
    default:
      Kelvara::setUserChild(chance.oneIn(2));
      Kelvara::setSubjectToGDPR(chance.oneIn(2));
      return Kelvara::setSubjectToCCPA(chance.oneIn(2));
  }
}

class Soak : public testing::Test {
 protected:
  Soak()
      : server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100},
                .onExchange = [this](const sandbox::Exchange& exchange) {
                  ++exchanges;
                  befell.with([&](auto& counts) { ++counts[exchange.scenario]; });
                }}) {}
  void SetUp() override {
    std::cout << "KELVARA_SEED=" << seed << std::endl;
    ASSERT_TRUE(server.start());
  }

  void plantFault() {
    constexpr std::int64_t kCodes[] = {403, 404, 429, 500, 503, 400};
    std::string_view endpoint =
        chance.oneIn(3) ? std::string_view("*") : chance.oneOf(sandbox::endpoints()).path;
    Scenario scenario{.behaviour = chance.oneOf(kBehaviours),
                      .times = static_cast<std::int64_t>(1 + chance.below(2))};
    if (scenario.behaviour == Behaviour::noFill) endpoint = "/bid/init";
    if (scenario.behaviour == Behaviour::missingKey || scenario.behaviour == Behaviour::wrongType) {
      const auto& [where, keys] = chance.oneOf(kKeys);
      if (where != "*") endpoint = where;
      scenario.key = chance.oneOf(keys);
    }
    // After a bad request the SDK drops its reports, as documented. Here none may be missing.
    const bool mayBeBad = endpoint != "/bid/stats" && endpoint != "*";
    scenario.code = kCodes[chance.below(std::size(kCodes) - !mayBeBad)];
    if (chance.oneIn(4)) scenario.delay = std::chrono::milliseconds(chance.below(30));
    server.setScenario(endpoint, scenario);
  }

  void startAtLast(Life& life) {
    for (int tries = 0; tries < 100 && !Kelvara::isInitialized(); ++tries) {
      if (chance.oneIn(2)) plantFault();
      life.start(std::string(sandbox::kApplicationId));
      ASSERT_TRUE(life.settles()) << "a start hangs";
    }
    ASSERT_TRUE(Kelvara::isInitialized());
  }

  /// Without faults the next calls succeed, whatever the earlier ones have left behind.
  void expectHealth(Life& life, Won& won) {
    server.clearScenarios();
    ASSERT_TRUE(life.settles()) << "a call hangs";
    // The ledger does not count lost bids, uploads and registrations. Wait longer than any delay.
    std::size_t last = 0;
    auto quietSince = std::chrono::steady_clock::now();
    ASSERT_TRUE(life.playUntil([&] {
      if (last != exchanges) quietSince = std::chrono::steady_clock::now();
      last = exchanges;
      return std::chrono::steady_clock::now() - quietSince > 100ms;
    }));
    bid(life, won, chance.oneOf(sandbox::adUnits()));
    ASSERT_TRUE(life.settles()) << "a healthy bid hangs";
    const auto taken = won.take();
    const auto& healthyBid = taken.bid;
    ASSERT_TRUE(healthyBid) << "a healthy bid failed";
    life.load(healthyBid, taken.kind);
    ASSERT_TRUE(life.settles()) << "a healthy load or show hangs";
    const auto shown = life.shown();
    ASSERT_TRUE(!shown.empty() && shown.back() == healthyBid->bidId())
        << "a healthy ad was not shown: " << testing::PrintToString(life.ledger.books().outcomes);
    EXPECT_TRUE(life.playUntil([&] {
      const auto state = server.state();
      const auto* report = state.report(healthyBid->bidId());
      if (report && report->impression && report->dismissed && report->clicked) return true;
      // An action that is tracked during an upload waits for the next action.
      ReportManager::shared().trackAction(healthyBid->bidId(), {BidReportAction::click});
      std::this_thread::sleep_for(20ms);
      return false;
    })) << "a healthy report did not arrive";
    // The server made each bid for the ad unit of the call that it answered.
    auto units = won.adUnitOf.get();
    for (const auto& made : server.state().bids)
      if (const auto at = units.find(made.bid); at != units.end() && at->second == made.adUnit)
        units.erase(at);
    EXPECT_TRUE(units.empty()) << units.size() << " bids answered another call, or none";
    ++healthChecks;
  }

  void liveOnce(std::size_t count) {
    // The next start announces it, so the SDK fetches templates instead of using stored ones.
    server.publishTemplate(chance.oneOf(sandbox::templates()).id, "<h1>[@TITLE_TEXT]</h1>");
    Won won;
    Life life(folder.path, server.baseURL());
    ++lives;
    startAtLast(life);
    const std::size_t end = exchanges + count;
    while (exchanges < end && !HasFailure()) {
      if (chance.oneIn(2)) plantFault();
      doSomething(life, won, chance);
      ASSERT_TRUE(life.playUntil([&] { return life.ledger.books().pending < 6; }))
          << "a call hangs";
      if (chance.oneIn(60)) expectHealth(life, won);
    }
    if (chance.oneIn(2) && !HasFailure()) expectHealth(life, won);
    // A process that ends drops its ads without a call, and answers the other pending calls.
    ASSERT_TRUE(life.settles()) << "a call hangs";
    for (std::size_t i = chance.below(5); i > 0; --i) bid(life, won, sandbox::adUnits()[0]);
    cutOff += life.ledger.books().pending;
    life.end();
    const auto books = life.ledger.books();
    EXPECT_EQ(books.pending, 0u) << "calls were not answered when the process ended";
    EXPECT_EQ(life.viewsLeft(), 0);
    for (const auto& complaint : books.complaints) ADD_FAILURE() << complaint;
    for (const auto& [outcome, times] : books.outcomes) outcomes[outcome] += times;
    calls += books.calls;
  }

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  Chance chance{seed};
  test::TemporaryFolder folder;
  std::atomic<std::size_t> exchanges = 0;
  Guarded<std::map<std::string, std::size_t>> befell;  ///< exchanges by scenario
  sandbox::Server server;

  std::map<std::string, std::size_t> outcomes;
  std::size_t calls = 0, lives = 0, cutOff = 0, healthChecks = 0;
};

TEST_F(Soak, AnswersEveryCallOnceAsPromisedWhateverFails) {
  const std::size_t count = fromEnvironment("KELVARA_EXCHANGES", 400);
  std::cout << "KELVARA_EXCHANGES=" << count << std::endl;
  while (exchanges < count && !HasFailure())
    liveOnce(std::min<std::size_t>(50 + chance.below(250), count));

  std::cout << exchanges << " exchanges, " << calls << " calls, " << lives << " lives (" << cutOff
            << " calls under way at their ends), " << healthChecks << " health checks\n";
  for (const auto& [name, times] : befell.get()) std::cout << "  " << times << " " << name << "\n";
  for (const auto& [name, times] : outcomes) std::cout << "  " << name << ": " << times << "\n";
  std::cout << std::flush;
}

/// No fault is planted. The thread sanitizer checks eight threads that call the whole facade.
TEST_F(Soak, EightThreadsCallEverythingWhileAnswersArrive) {
  constexpr std::size_t kThreads = 8, kSteps = 60, kAds = 10;
  Won won;
  Life life(folder.path, server.baseURL());
  std::atomic<std::size_t> running = kThreads;
  std::atomic<bool> stopping = false;
  {
    std::vector<std::jthread> threads;
    for (std::size_t number = 0; number < kThreads; ++number)
      threads.emplace_back([&, number] {
        Chance own(seed * kThreads + number);
        for (std::size_t i = 0; !stopping && (i < kSteps || life.shown().size() < kAds); ++i) {
          doSomething(life, won, own);
          do {
            std::this_thread::sleep_for(1ms);
          } while (!stopping && life.ledger.books().pending > 40);
        }
        --running;
      });
    life.start(std::string(sandbox::kApplicationId));
    EXPECT_TRUE(life.playUntil([&] { return running == 0 && life.ledger.isSettled(); }))
        << "calls are not answered";
    stopping = true;
  }
  const auto books = life.ledger.books();
  for (const auto& complaint : books.complaints) ADD_FAILURE() << complaint;
  for (const char* name : {"bid: success", "load: success", "show: success", "dismissal: success"})
    EXPECT_TRUE(books.outcomes.contains(name)) << name;
  EXPECT_TRUE(life.playUntil([&] { return life.viewsLeft() == 0; }))
      << life.viewsLeft() << " views are left";
}

}  // namespace
}  // namespace kva::story
