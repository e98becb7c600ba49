// The life of an SDK over and over, through the real transport, while the server and the way to it
// fail in every way that they know. All choices come from a seed.
//   KELVARA_EXCHANGES  how many requests (400)      KELVARA_SEED  which choices (1)
#include <Kelvara/Kelvara.h>
#include <Kelvara/reporting/ReportManager.h>
#include <gtest/gtest.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Schema.h>
#include <sandbox/Server.h>

#include <algorithm>
#include <array>
#include <iostream>

#include "story/Chance.h"
#include "story/FaultProxy.h"
#include "story/Life.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using sandbox::Behaviour;
using sandbox::Scenario;

/// Codes of the server's error records here, and -1, which stands for an answer that is none.
const std::set<std::int64_t> kServerCodes = {-1, 400, 403, 404, 409, 429, 500, 503};

/// Members that a server may spoil. Not the bid identifier of an answer with plans, which the SDK
/// insists on, nor the periods of the application.
constexpr std::pair<std::string_view, const char*> kKeys[] = {
    {"*", "ok"},
    {"*", "err"},
    {"*", "time"},
    {"*", "data"},
    {"/init", "data.pp"},
    {"/init", "data.tmpv"},
    {"/init", "data.tids.0.idfa"},
    {"/register", "data.uid"},
    {"/update", "data.aid"},
    {"/bid/init", "data.plans"},
    {"/bid/init", "data.plans.1.ecpm"},
    {"/bid/load", "data.crea.adur"},
    {"/bid/load", "data.crea.bton"},
    {"/bid/load", "data.fls.0.furl"},
    {"/bid/load", "data.tmpl"},
    {"/template", "data.html"},
    {"/template", "data.tver"},
    {"/track", "data.plan"},
};

/// What was won in one life.
struct Won {
  struct Open {
    Life::Bid bid;
    KVABidType kind;
  };
  Guarded<std::map<std::string, std::string>> adUnitOf;  ///< by bid
  Guarded<std::vector<Open>> open;                       ///< neither loaded nor lost

  /// The last open bid, if there is one.
  Open take() {
    return open.with([](auto& bids) -> Open {
      if (bids.empty()) return {};
      auto last = std::move(bids.back());
      bids.pop_back();
      return last;
    });
  }
};

class Soak : public testing::Test {
 protected:
  Soak() : server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100}}) {}
  void SetUp() override {
    ASSERT_TRUE(server.start());
    proxy = std::make_unique<FaultProxy>(server.port(), [this](std::size_t number, const auto&) {
      Chance of(seed * 1'000'003 + number);
      const Fault fault = healthy || of.oneIn(2)
                              ? Fault::none
                              : static_cast<Fault>(of.below(std::size(kFaultNames)));
      ++befell[static_cast<std::size_t>(fault)];
      return fault;
    });
  }

  void liveOnce(std::size_t exchanges);
  static void bid(Life& life, Won& won, const sandbox::CatalogueAdUnit& unit);
  void doSomething(Life& life, Won& won);
  void changeTheWeather();
  static void startAtLast(Life& life);
  void expectHealth(Life& life, Won& won);

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  Chance chance{seed};
  test::TemporaryFolder folder;
  sandbox::Server server;
  std::atomic<bool> healthy = false;
  std::array<std::atomic<std::size_t>, std::size(kFaultNames)> befell{};
  std::unique_ptr<FaultProxy> proxy;

  std::map<std::string, std::size_t> outcomes;
  std::size_t calls = 0, lives = 0, cutOff = 0, healthChecks = 0;
};

void Soak::changeTheWeather() {
  constexpr Behaviour kBehaviours[] = {
      Behaviour::normal,     Behaviour::noFill,    Behaviour::serverError, Behaviour::notOk,
      Behaviour::missingKey, Behaviour::wrongType, Behaviour::malformed,   Behaviour::truncated,
      Behaviour::emptyBody,  Behaviour::http500,   Behaviour::reset,       Behaviour::hang};
  constexpr std::int64_t kCodes[] = {403, 404, 429, 500, 503, 400};
  std::string_view endpoint = chance.oneOf(sandbox::endpoints()).path;
  Scenario scenario{.behaviour = chance.oneOf(kBehaviours),
                    .times = static_cast<std::int64_t>(1 + chance.below(2))};
  if (scenario.behaviour == Behaviour::hang && !chance.oneIn(4))
    scenario.behaviour = Behaviour::reset;  // which costs no time
  if (scenario.behaviour == Behaviour::noFill) endpoint = "/bid/init";
  if (scenario.behaviour == Behaviour::missingKey || scenario.behaviour == Behaviour::wrongType) {
    const auto& [where, key] = chance.oneOf(kKeys);
    if (where != "*") endpoint = where;
    scenario.key = key;
  }
  // A bad request makes the SDK drop its reports, as documented; here none may be missing.
  scenario.code = kCodes[chance.below(std::size(kCodes) - (endpoint == "/bid/stats"))];
  if (chance.oneIn(4)) scenario.delay = std::chrono::milliseconds(chance.below(30));
  server.setScenario(endpoint, scenario);
}

void Soak::bid(Life& life, Won& won, const sandbox::CatalogueAdUnit& unit) {
  const auto kind = unit.adType == "rewarded" ? KVABidType::rewarded : KVABidType::interstitial;
  const std::string id(unit.id);
  life.bid(id, kind, [&won, id, kind](const Life::Bid& bid) {
    won.adUnitOf.with([&](auto& units) { units[bid->bidId()] = id; });
    won.open.with([&](auto& bids) { bids.push_back({bid, kind}); });
  });
}

void Soak::doSomething(Life& life, Won& won) {
  const auto& unit = chance.oneOf(sandbox::adUnits());
  const auto shown = life.shown();
  switch (chance.below(10)) {
    case 0:
    case 1:
    case 2:
      return bid(life, won, unit);
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
      return life.start(std::string(sandbox::kApplicationId));
    default:
      return life.bid("no ad unit", KVABidType::rewarded, [](auto) {});
  }
}

void Soak::startAtLast(Life& life) {
  for (int tries = 0; tries < 100 && !Kelvara::isInitialized(); ++tries) {
    life.start(std::string(sandbox::kApplicationId));
    ASSERT_TRUE(life.settles()) << "a start hangs";
  }
  ASSERT_TRUE(Kelvara::isInitialized());
}

/// With the faults gone, whatever they have left behind must not spoil the next calls.
void Soak::expectHealth(Life& life, Won& won) {
  healthy = true;
  server.clearScenarios();
  proxy->setPatience(10s);  // a server on a busy machine is slow, and yet healthy
  ASSERT_TRUE(life.settles()) << "a call hangs";
  // Lost bids, uploads and registrations that follow from answers are not in the ledger.
  int quiet = 0;
  ASSERT_TRUE(life.playUntil([&] {
    std::this_thread::sleep_for(1ms);
    quiet = proxy->isIdle() ? quiet + 1 : 0;
    return quiet == 20;
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
    // What comes during an upload goes with the next.
    ReportManager::shared().trackAction(healthyBid->bidId(), {BidReportAction::click});
    std::this_thread::sleep_for(20ms);
    return false;
  })) << "a healthy report did not arrive";
  // No answer went to another call than its own: a bid was made for the ad unit that asked.
  auto units = won.adUnitOf.get();
  for (const auto& made : server.state().bids)
    if (const auto at = units.find(made.bid); at != units.end() && at->second == made.adUnit)
      units.erase(at);
  EXPECT_TRUE(units.empty()) << units.size() << " bids answered another call, or none";
  ++healthChecks;
  healthy = false;
  proxy->setPatience(FaultProxy::kPatience);
}

void Soak::liveOnce(std::size_t exchanges) {
  // Announced by the next start, so that templates are fetched and not only found.
  server.publishTemplate(chance.oneOf(sandbox::templates()).id, "<h1>[@TITLE_TEXT]</h1>");
  Won won;
  Life life(folder.path, proxy->apiBase(), kServerCodes);
  ++lives;
  startAtLast(life);
  const std::size_t end = proxy->exchanges() + exchanges;
  while (proxy->exchanges() < end && !HasFailure()) {
    if (chance.oneIn(2)) changeTheWeather();
    doSomething(life, won);
    ASSERT_TRUE(life.playUntil([&] { return life.ledger.books().pending < 6; })) << "a call hangs";
    if (chance.oneIn(60)) expectHealth(life, won);
  }
  if (chance.oneIn(2) && !HasFailure()) expectHealth(life, won);
  // Ads go with the process; the calls that are under way are answered when it ends.
  ASSERT_TRUE(life.settles()) << "a call hangs";
  for (std::size_t i = chance.below(5); i > 0; --i) bid(life, won, sandbox::adUnits()[0]);
  cutOff += life.ledger.books().pending;
  life.end();
  const auto books = life.ledger.books();
  EXPECT_EQ(books.pending, 0u) << "calls were not answered when the process ended";
  EXPECT_EQ(life.viewsLeft(), 0);
  for (const auto& complaint : books.complaints) ADD_FAILURE() << complaint;
  for (const auto& [outcome, count] : books.outcomes) outcomes[outcome] += count;
  calls += books.calls;
}

TEST_F(Soak, AnswersEveryCallOnceAsPromisedWhateverFails) {
  const std::size_t exchanges = fromEnvironment("KELVARA_EXCHANGES", 400);
  std::cout << "KELVARA_SEED=" << seed << " KELVARA_EXCHANGES=" << exchanges << std::endl;
  while (proxy->exchanges() < exchanges && !HasFailure())
    liveOnce(std::min<std::size_t>(50 + chance.below(250), exchanges));

  std::cout << proxy->exchanges() << " exchanges, " << calls << " calls, " << lives << " lives ("
            << cutOff << " calls under way at their ends), " << healthChecks << " health checks\n";
  for (std::size_t fault = 0; fault < befell.size(); ++fault)
    std::cout << "  " << befell[fault] << " " << kFaultNames[fault] << "\n";
  for (const auto& [outcome, count] : outcomes)
    std::cout << "  " << outcome << ": " << count << "\n";
  std::cout << std::flush;
}

}  // namespace
}  // namespace kva::story
