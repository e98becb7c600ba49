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

constexpr const char* kEndpoints[] = {"/init",     "/register",  "/update",
                                      "/bid/init", "/bid/lost",  "/bid/load",
                                      "/template", "/bid/stats", "/track"};
/// Members that a server may spoil. Not the bid identifier of an answer with plans, which the SDK
/// insists on, nor the periods of the application.
constexpr std::pair<const char*, const char*> kKeys[] = {
    {"*", "ok"},
    {"*", "err"},
    {"*", "time"},
    {"*", "data"},
    {"/init", "data.aid"},
    {"/init", "data.pp"},
    {"/init", "data.tids"},
    {"/init", "data.tmpv"},
    {"/init", "data.hasc"},
    {"/init", "data.tids.0.idfa"},
    {"/register", "data.uid"},
    {"/update", "data.uid"},
    {"/update", "data.aid"},
    {"/bid/init", "data.plans"},
    {"/bid/init", "data.plans.0.plan"},
    {"/bid/init", "data.plans.1.ecpm"},
    {"/bid/init", "data.plans.2.caph"},
    {"/bid/load", "data.bid"},
    {"/bid/load", "data.crea"},
    {"/bid/load", "data.crea.adur"},
    {"/bid/load", "data.crea.bton"},
    {"/bid/load", "data.fls.0.furl"},
    {"/bid/load", "data.tmpl"},
    {"/template", "data.html"},
    {"/template", "data.tver"},
    {"/template", "data.adt"},
    {"/track", "data.plan"},
};

struct Silence : StandardOutput {
  void print(std::string_view) override {}
};

/// A host that does what hosts do, and lives as long as one process would.
class Life {
 public:
  Life(const LinuxOptions& options)
      : platform_(quiet(options)),
        session_(std::static_pointer_cast<CurlSession>(platform_.urlSession)),
        ledger([session = session_] { return session->isSessionThread(); }),
        runtime_(std::make_unique<Runtime>(platform_)) {}
  ~Life() { end(); }

  void start();
  void bid(std::string_view adUnit, KVABidType kind);
  /// Loads what `bid` has got last, and its template, and tracks that it was shown.
  void load(std::shared_ptr<KVABidResponse> bid);
  void fetchTemplate(const std::string& id);
  void loseBid();
  void track(const std::string& bidId, BidReportAction action);
  /// Ends the process, whatever is under way.
  void end();

  std::shared_ptr<KVABidResponse> takeBid();
  std::vector<std::string> shownBids() const { return shown_.get(); }
  std::size_t templates() const { return templates_; }

  struct Won {
    std::shared_ptr<KVABidResponse> bid;
    std::string adUnit;
  };
  std::vector<Won> allWon() const { return won_.get(); }

 private:
  static Platform quiet(const LinuxOptions& options) {
    Platform ports = makeLinuxPlatform(options).ports;
    ports.standardOutput = std::make_shared<Silence>();
    return ports;
  }
  struct Listener;

  Platform platform_;
  std::shared_ptr<CurlSession> session_;

 public:
  Ledger ledger;

 private:
  Guarded<std::vector<Won>> won_;
  Guarded<std::vector<std::shared_ptr<KVABidResponse>>> open_;
  Guarded<std::vector<std::string>> shown_;
  std::atomic<std::size_t> templates_ = 0;
  std::unique_ptr<Runtime> runtime_;
};

struct Life::Listener : AdLoaderDelegate, std::enable_shared_from_this<Listener> {
  Listener(Life& of, std::shared_ptr<Ledger::Call> watched) : life(of), call(std::move(watched)) {}
  void adLoaderDidReceiveAd(AdLoader& loader) override {
    const auto ad = loader.adData();
    life.fetchTemplate(ad->templateId);
    life.track(ad->bidId, {BidReportAction::impression});
    life.shown_.with([&](auto& shown) { shown.push_back(ad->bidId); });
    answered(std::nullopt);
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override { answered(error); }
  void answered(const std::optional<Error>& error) {
    call->answered(error);
    self = nullptr;
  }
  Life& life;
  std::shared_ptr<Ledger::Call> call;
  std::shared_ptr<Listener> self;  ///< until the answer
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
          won_.with([&](auto& won) { won.push_back({bid, unit}); });
          open_.with([&](auto& open) { open.push_back(std::move(bid)); });
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
    if (found) ++templates_;
    call->answered(std::nullopt);
  });
  call->returned();
}

void Life::loseBid() { KVABidLoader::sendBidLost(takeBid(), 2.25); }

void Life::track(const std::string& bidId, BidReportAction action) {
  ReportManager::shared().trackAction(bidId, action);
}

std::shared_ptr<KVABidResponse> Life::takeBid() {
  return open_.with([](auto& open) -> std::shared_ptr<KVABidResponse> {
    if (open.empty()) return nullptr;
    auto last = std::move(open.back());
    open.pop_back();
    return last;
  });
}

void Life::end() {
  ledger.setEnding(true);
  runtime_ = nullptr;
}

class Soak : public testing::Test {
 protected:
  Soak() : server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100}}) {}
  void SetUp() override {
    ASSERT_TRUE(server.start());
    proxy = std::make_unique<FaultProxy>(server.port(), [this](std::size_t number, const auto&) {
      Chance of(seed * 1'000'003 + number);
      const Fault fault = healthy || of.oneIn(2) ? Fault::none : of.oneOf(kFaults);
      ++befell[static_cast<std::size_t>(fault)];
      return fault;
    });
    options.bundleId = "org.kelvara.soak";
    options.appVersion = "1.0";
    options.userDefaults = folder.path / "defaults.sqlite";
    options.apiBases = {.production = proxy->origin() + "/api/v1",
                        .sandbox = proxy->origin() + "/api/v1"};
    options.reachability = ReachabilityPolicy::assumeReachable;
  }

  void liveOnce(std::size_t exchanges);
  void doSomething(Life& life);
  void changeTheWeather();
  Scenario someScenario(const char*& endpoint);
  bool startAtLast(Life& life);
  void expectHealth(Life& life);
  void expectOwnBids(const Life& life);
  void collect(const Life& life);
  bool until(const std::function<bool()>& done) { return test::spinMainLoopUntil(done); }

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  Chance chance{seed};
  test::TemporaryFolder folder;
  sandbox::Server server;
  LinuxOptions options;
  std::atomic<bool> healthy = false;
  std::array<std::atomic<std::size_t>, std::size(kFaults)> befell{};
  std::unique_ptr<FaultProxy> proxy;

  std::map<std::string, std::size_t> outcomes;
  std::size_t calls = 0, lives = 0, cutOff = 0, healthChecks = 0;
};

Scenario Soak::someScenario(const char*& endpoint) {
  constexpr Behaviour kBehaviours[] = {
      Behaviour::normal,    Behaviour::noFill,     Behaviour::serverError, Behaviour::serverError,
      Behaviour::notOk,     Behaviour::missingKey, Behaviour::wrongType,   Behaviour::missingKey,
      Behaviour::wrongType, Behaviour::malformed,  Behaviour::truncated,   Behaviour::emptyBody,
      Behaviour::http500,   Behaviour::reset,      Behaviour::hang};
  constexpr std::int64_t kCodes[] = {403, 404, 429, 500, 503, 400};
  Scenario scenario{.behaviour = chance.oneOf(kBehaviours),
                    .times = static_cast<std::int64_t>(1 + chance.below(2))};
  if (scenario.behaviour == Behaviour::hang && !chance.oneIn(4))
    scenario.behaviour = Behaviour::reset;
  if (scenario.behaviour == Behaviour::noFill) endpoint = "/bid/init";
  if (scenario.behaviour == Behaviour::missingKey || scenario.behaviour == Behaviour::wrongType) {
    const auto& [where, key] = chance.oneOf(kKeys);
    if (*where != '*') endpoint = where;
    scenario.key = key;
  }
  // A bad request makes the SDK drop its reports, as documented; here none may be missing.
  const bool sendsReports = std::string_view(endpoint) == "/bid/stats";
  scenario.code = kCodes[chance.below(std::size(kCodes) - sendsReports)];
  if (chance.oneIn(4)) scenario.delay = std::chrono::milliseconds(chance.below(30));
  return scenario;
}

void Soak::changeTheWeather() {
  const char* endpoint = chance.oneOf(kEndpoints);
  const Scenario scenario = someScenario(endpoint);
  server.setScenario(endpoint, scenario);
}

void Soak::doSomething(Life& life) {
  const auto& unit = chance.oneOf(sandbox::adUnits());
  const auto kind = unit.adType == "rewarded" ? KVABidType::rewarded : KVABidType::interstitial;
  const auto shown = life.shownBids();
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
      return life.loseBid();
    case 7:
      if (!shown.empty()) life.track(chance.oneOf(shown), {BidReportAction::click});
      return;
    case 8:
      if (!shown.empty()) life.track(chance.oneOf(shown), {BidReportAction::dismiss});
      return;
    default:
      return chance.oneIn(2) ? life.bid("no ad unit", kind) : life.start();
  }
}

bool Soak::startAtLast(Life& life) {
  for (int tries = 0; tries < 100 && !Kelvara::isInitialized(); ++tries) {
    life.start();
    if (!until([&] { return life.ledger.pending() == 0; })) return false;
  }
  return Kelvara::isInitialized();
}

/// With the faults gone, whatever they have left behind must not spoil the next calls.
void Soak::expectHealth(Life& life) {
  healthy = true;
  server.clearScenarios();
  ASSERT_TRUE(until([&] { return life.ledger.pending() == 0; })) << "a call hangs";
  // Lost bids, uploads and registrations that follow from answers are not in the ledger.
  int quiet = 0;
  ASSERT_TRUE(until([&] {
    std::this_thread::sleep_for(1ms);
    quiet = proxy->isIdle() ? quiet + 1 : 0;
    return quiet == 20;
  }));
  const auto shownBefore = life.shownBids().size();
  const auto templatesBefore = life.templates();
  life.bid(sandbox::kInterstitialAdUnit, KVABidType::interstitial);
  ASSERT_TRUE(until([&] { return life.ledger.pending() == 0; })) << "a healthy bid hangs";
  auto bid = life.takeBid();
  ASSERT_TRUE(bid) << "a healthy bid failed";
  life.load(bid);
  ASSERT_TRUE(until([&] { return life.ledger.pending() == 0; })) << "a healthy load hangs";
  ASSERT_EQ(life.shownBids().size(), shownBefore + 1) << "a healthy load failed";
  EXPECT_EQ(life.templates(), templatesBefore + 1) << "a healthy template was not had";
  EXPECT_TRUE(until([&] {
    const auto state = server.state();
    if (const auto* report = state.report(bid->bidId()); report && report->clicked) return true;
    life.track(bid->bidId(), {BidReportAction::click});
    std::this_thread::sleep_for(20ms);
    return false;
  })) << "a healthy report did not arrive";
  expectOwnBids(life);
  ++healthChecks;
  healthy = false;
}

/// No answer went to another call than its own: every bid was made for the ad unit that asked.
void Soak::expectOwnBids(const Life& life) {
  const auto state = server.state();
  std::map<std::string, std::string> unitOf;
  for (const auto& bid : state.bids) unitOf[bid.bid] = bid.adUnit;
  for (const auto& won : life.allWon()) EXPECT_EQ(unitOf[won.bid->bidId()], won.adUnit);
}

void Soak::liveOnce(std::size_t exchanges) {
  Life life(options);
  ++lives;
  ASSERT_TRUE(startAtLast(life));
  const std::size_t end = proxy->exchanges() + exchanges;
  while (proxy->exchanges() < end) {
    if (chance.oneIn(2)) changeTheWeather();
    doSomething(life);
    ASSERT_TRUE(until([&] { return life.ledger.pending() < 6; })) << "a call hangs";
    if (chance.oneIn(60)) expectHealth(life);
    if (HasFailure()) return;
  }
  if (chance.oneIn(2)) expectHealth(life);
  cutOff += life.ledger.pending();
  life.end();
  EXPECT_EQ(life.ledger.pending(), 0u) << "calls were not answered when the process ended";
  collect(life);
}

void Soak::collect(const Life& life) {
  for (const auto& complaint : life.ledger.complaints()) ADD_FAILURE() << complaint;
  for (const auto& [outcome, count] : life.ledger.outcomes()) outcomes[outcome] += count;
  calls += life.ledger.calls();
}

TEST_F(Soak, AnswersEveryCallOnceAsPromisedWhateverFails) {
  const std::size_t exchanges = fromEnvironment("KELVARA_EXCHANGES", 400);
  std::cout << "KELVARA_SEED=" << seed << " KELVARA_EXCHANGES=" << exchanges << std::endl;
  while (proxy->exchanges() < exchanges && !HasFailure())
    liveOnce(std::min<std::size_t>(50 + chance.below(250), exchanges));

  std::cout << proxy->exchanges() << " exchanges, " << calls << " calls, " << lives << " lives ("
            << cutOff << " calls under way at their ends), " << healthChecks << " health checks\n";
  for (const Fault fault : kFaults)
    std::cout << "  " << befell[static_cast<std::size_t>(fault)] << " " << name(fault) << "\n";
  for (const auto& [outcome, count] : outcomes)
    std::cout << "  " << outcome << ": " << count << "\n";
  std::cout << std::flush;
}

}  // namespace
}  // namespace kva::story
