// The life of an SDK over and over, through the real transport, while the server and the way to it
// fail in every way that they know. All choices come from a seed.
//   KELVARA_EXCHANGES  how many requests (400)      KELVARA_SEED  which choices (1)
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <gtest/gtest.h>
#include <platform/linux/CurlSession.h>
#include <platform/linux/LinuxPlatform.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Schema.h>
#include <sandbox/Server.h>

#include <algorithm>
#include <array>
#include <iostream>

#include "platform/linux_support.h"
#include "story/Chance.h"
#include "story/FaultProxy.h"
#include "story/Ledger.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using sandbox::Behaviour;
using sandbox::Scenario;

/// Codes of the server's error records here, and -1, which stands for an answer that is none.
const std::set<std::int64_t> kServerCodes = {-1, 400, 403, 404, 409, 429, 500, 503};
std::set<std::int64_t> serverCodesAnd(std::int64_t code) {
  auto codes = kServerCodes;
  codes.insert(code);
  return codes;
}

// A start of what is started already succeeds at once.
const Promise kStart{
    .name = "start", .refusals = {4, 14}, .failures = kServerCodes, .mayAnswerAtOnce = true};
const Promise kBid{.name = "bid", .refusals = {2, 3, 4, 8}, .failures = serverCodesAnd(5)};
const Promise kLoad{.name = "load", .refusals = {2, 4, 7, 9}, .failures = kServerCodes};
const Promise kTemplate{.name = "template", .mayAnswerAtOnce = true};

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

struct Silence : StandardOutput {
  void print(std::string_view) override {}
};

/// A host that does what hosts do, and lives as long as one process would.
struct Life {
  explicit Life(Platform platform)
      : session(std::static_pointer_cast<CurlSession>(platform.urlSession)),
        ledger([this] { return session->isSessionThread(); }),
        runtime(std::make_unique<Runtime>(std::move(platform))) {}
  ~Life() { end(); }

  void start();
  void bid(std::string_view adUnit, KVABidType kind);
  /// Loads the ad of a bid, and its template, and tracks that it was shown.
  void load(std::shared_ptr<KVABidResponse> bid);
  void fetchTemplate(const std::string& id);
  /// The last bid that has not been taken, if there is one.
  std::shared_ptr<KVABidResponse> takeBid();
  /// Ends the process, whatever is under way.
  void end();

  const std::shared_ptr<CurlSession> session;
  Ledger ledger;
  Guarded<std::map<std::string, std::string>> adUnitOf;  ///< by bid, of all that were won
  Guarded<std::vector<std::shared_ptr<KVABidResponse>>> open;
  Guarded<std::vector<std::string>> shown;
  std::atomic<std::size_t> templates = 0;
  std::unique_ptr<Runtime> runtime;
};

/// Lives until the load is answered.
struct Listener : AdLoaderDelegate {
  Listener(Life& of, std::shared_ptr<Ledger::Call> watched) : life(of), call(std::move(watched)) {}
  void adLoaderDidReceiveAd(AdLoader& loader) override {
    const auto ad = loader.adData();
    life.fetchTemplate(ad->templateId);
    ReportManager::shared().trackAction(ad->bidId, {BidReportAction::impression});
    life.shown.with([&](auto& shown) { shown.push_back(ad->bidId); });
    answered(std::nullopt);
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override { answered(error); }
  void answered(const std::optional<Error>& error) {
    call->answered(error);
    self = nullptr;
  }
  Life& life;
  std::shared_ptr<Ledger::Call> call;
  std::shared_ptr<Listener> self;
};

void Life::start() {
  auto call = ledger.open(kStart);
  Kelvara::start(std::string(sandbox::kApplicationId),
                 [call](std::optional<Error> error) { call->answered(error); });
  call->returned();
}

void Life::bid(std::string_view adUnit, KVABidType kind) {
  auto call = ledger.open(kBid);
  const std::string unit(adUnit);
  KVABidLoader::loadBid(
      unit, kind,
      [this, call, unit](std::shared_ptr<KVABidResponse> bid, std::optional<Error> error) {
        if (bid) {
          adUnitOf.with([&](auto& units) { units[bid->bidId()] = unit; });
          open.with([&](auto& bids) { bids.push_back(std::move(bid)); });
        }
        call->answered(error);
      });
  call->returned();
}

void Life::load(std::shared_ptr<KVABidResponse> bid) {
  auto call = ledger.open(kLoad);
  auto listener = std::make_shared<Listener>(*this, call);
  listener->self = listener;
  auto loader = AdLoader::create();
  loader->setDelegate(listener);
  loader->load(bid, 1.5);
  call->returned();
}

void Life::fetchTemplate(const std::string& id) {
  auto call = ledger.open(kTemplate);
  TemplateManager::shared().templateFor(id, [this, call](std::optional<Template> found) {
    if (found) ++templates;
    call->answered(std::nullopt);
  });
  call->returned();
}

std::shared_ptr<KVABidResponse> Life::takeBid() {
  return open.with([](auto& bids) -> std::shared_ptr<KVABidResponse> {
    if (bids.empty()) return nullptr;
    auto last = std::move(bids.back());
    bids.pop_back();
    return last;
  });
}

void Life::end() {
  ledger.end();
  runtime = nullptr;
}

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
    options.bundleId = "org.kelvara.soak";
    options.appVersion = "1.0";
    options.userDefaults = folder.path / "defaults.sqlite";
    options.apiBases = {.production = proxy->apiBase(), .sandbox = proxy->apiBase()};
    options.reachability = ReachabilityPolicy::assumeReachable;
  }

  void liveOnce(std::size_t exchanges);
  void doSomething(Life& life);
  void changeTheWeather();
  void startAtLast(Life& life);
  void expectHealth(Life& life);
  static bool settles(const Life& life) {
    return test::spinMainLoopUntil([&] { return life.ledger.isSettled(); });
  }

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  Chance chance{seed};
  test::TemporaryFolder folder;
  sandbox::Server server;
  LinuxOptions options;
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

void Soak::doSomething(Life& life) {
  const auto& unit = chance.oneOf(sandbox::adUnits());
  const auto kind = unit.adType == "rewarded" ? KVABidType::rewarded : KVABidType::interstitial;
  const auto shown = life.shown.get();
  switch (chance.below(10)) {
    case 0:
    case 1:
    case 2:
      return life.bid(unit.id, kind);
    case 3:
    case 4:
      return life.load(life.takeBid());  // without one it is refused
    case 5:
      return life.fetchTemplate(std::string(chance.oneOf(sandbox::templates()).id));
    case 6:
      return KVABidLoader::sendBidLost(life.takeBid(), 2.25);
    case 7:
    case 8: {
      const auto action = chance.oneIn(2) ? BidReportAction::click : BidReportAction::dismiss;
      if (!shown.empty()) ReportManager::shared().trackAction(chance.oneOf(shown), {action});
      return;
    }
    default:
      return chance.oneIn(2) ? life.bid("no ad unit", kind) : life.start();
  }
}

void Soak::startAtLast(Life& life) {
  for (int tries = 0; tries < 100 && !Kelvara::isInitialized(); ++tries) {
    life.start();
    ASSERT_TRUE(settles(life)) << "a start hangs";
  }
  ASSERT_TRUE(Kelvara::isInitialized());
}

/// With the faults gone, whatever they have left behind must not spoil the next calls.
void Soak::expectHealth(Life& life) {
  healthy = true;
  server.clearScenarios();
  ASSERT_TRUE(settles(life)) << "a call hangs";
  // Lost bids, uploads and registrations that follow from answers are not in the ledger.
  int quiet = 0;
  ASSERT_TRUE(test::spinMainLoopUntil([&] {
    std::this_thread::sleep_for(1ms);
    quiet = proxy->isIdle() ? quiet + 1 : 0;
    return quiet == 20;
  }));
  const auto shownBefore = life.shown.get().size(), templatesBefore = life.templates.load();
  life.bid(sandbox::kInterstitialAdUnit, KVABidType::interstitial);
  ASSERT_TRUE(settles(life)) << "a healthy bid hangs";
  const auto bid = life.takeBid();
  ASSERT_TRUE(bid) << "a healthy bid failed";
  life.load(bid);
  ASSERT_TRUE(settles(life)) << "a healthy load hangs";
  ASSERT_EQ(life.shown.get().size(), shownBefore + 1) << "a healthy load failed";
  EXPECT_EQ(life.templates, templatesBefore + 1) << "a healthy template was not had";
  EXPECT_TRUE(test::spinMainLoopUntil([&] {
    const auto state = server.state();
    if (const auto* report = state.report(bid->bidId()); report && report->clicked) return true;
    ReportManager::shared().trackAction(bid->bidId(), {BidReportAction::click});
    std::this_thread::sleep_for(20ms);
    return false;
  })) << "a healthy report did not arrive";
  // No answer went to another call than its own: a bid was made for the ad unit that asked.
  auto won = life.adUnitOf.get();
  for (const auto& made : server.state().bids)
    if (const auto at = won.find(made.bid); at != won.end() && at->second == made.adUnit)
      won.erase(at);
  EXPECT_TRUE(won.empty()) << won.size() << " bids answered another call, or none";
  ++healthChecks;
  healthy = false;
}

void Soak::liveOnce(std::size_t exchanges) {
  Platform ports = makeLinuxPlatform(options).ports;
  ports.standardOutput = std::make_shared<Silence>();
  Life life(std::move(ports));
  ++lives;
  startAtLast(life);
  const std::size_t end = proxy->exchanges() + exchanges;
  while (proxy->exchanges() < end && !HasFailure()) {
    if (chance.oneIn(2)) changeTheWeather();
    doSomething(life);
    ASSERT_TRUE(test::spinMainLoopUntil([&] { return life.ledger.books().pending < 6; }))
        << "a call hangs";
    if (chance.oneIn(60)) expectHealth(life);
  }
  if (chance.oneIn(2) && !HasFailure()) expectHealth(life);
  if (HasFailure()) return;
  cutOff += life.ledger.books().pending;
  life.end();
  const auto books = life.ledger.books();
  EXPECT_EQ(books.pending, 0u) << "calls were not answered when the process ended";
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
