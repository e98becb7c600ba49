#include <set>
#include <thread>

#include "Kelvara/base/Digest.h"
#include "sandbox/Client.h"
#include "sandbox/WhyNoAd.h"

namespace kva::sandbox {
namespace {

using namespace std::chrono_literals;

using SandboxServer = SandboxTest;

TEST_F(SandboxServer, StoresBidsReportsAndTracksAndClosesBids) {
  server.setClockSkew(1h);
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const Json application = get(kInitPath).json();
  const auto ahead = std::chrono::milliseconds(application["time"].get<std::int64_t>()) - before;
  EXPECT_TRUE(ahead > 59min && ahead < 61min);
  EXPECT_EQ(application["data"]["tids"][0]["idfa"], md5Hex(kTesterIDFA));

  EXPECT_TRUE(data("/track", request("/track"))["plan"].is_null());
  EXPECT_EQ(data("/track", request("/track", {{"idfa", kTesterIDFA}}))["plan"], kCampaignPlan);

  const Json offer = data("/bid/init", bidRequest(uid));
  const std::string bid = offer["bid"], plan = offer["plans"][1]["plan"];
  EXPECT_EQ(data("/bid/load", loadRequest(bid, plan))["bid"], bid);
  const std::string lost = data("/bid/init", bidRequest(uid))["bid"];
  EXPECT_EQ(call("/bid/lost", {{"bid", lost}, {"lecpm", 1234}}).verdict(), "ok");
  const Json again = {{"bid", bid}, {"lecpm", 1}}, unknown = {{"bid", kSomeUUID}, {"lecpm", 1}};
  EXPECT_EQ(call("/bid/lost", again).verdict(), "409 bid: already loaded");
  EXPECT_EQ(call("/bid/lost", unknown).verdict(), "400 bid: no such bid");
  const Json first = report(bid, {{"imp", true}, {"time", 1700000000000}, {"quar", 3}});
  const Json second = report(bid, {{"dism", true}, {"clck", true}, {"quar", 2}});
  EXPECT_EQ(call("/bid/stats", statsRequest(uid, {first})).verdict(), "ok");
  EXPECT_EQ(call("/bid/stats", statsRequest(uid, {second, report(kSomeUUID)})).verdict(), "ok");

  const Json state = server.state().toJson();
  const Json &loaded = state["bids"][0], &away = state["bids"][1];
  EXPECT_TRUE(loaded["status"] == "loaded" && loaded["clearingPrice"] == 4100) << loaded;
  EXPECT_TRUE(away["status"] == "lost" && away["clearingPrice"] == 1234) << away;
  Json merged = first;
  merged.update({{"dism", true}, {"clck", true}, {"bidKnown", true}, {"received", 2}});
  EXPECT_EQ(state["reports"][0], merged);
  EXPECT_EQ(state["reports"][1]["bidKnown"], false);
  EXPECT_EQ(state["tracks"].size(), 2u);
  EXPECT_EQ(state["users"][0]["uid"], uid);
}

TEST_F(SandboxServer, ServesEveryFileOfItsAds) {
  std::set<std::string> paths = {"/creatives/privacy.html"};
  const auto path = [](const Json& url) {
    return url.get<std::string>().substr(sizeof "http://sandbox.test" - 1);
  };
  for (const CatalogueAdUnit& unit : adUnits()) {
    const Json offer = data("/bid/init", bidRequest(uid, unit));
    const Json ad = data("/bid/load", loadRequest(offer["bid"], offer["plans"][0]["plan"]));
    for (const Json& file : ad["fls"]) {
      paths.insert(path(file["furl"]));
      EXPECT_TRUE(path(file["furl"]).contains(file["ornt"].get<std::string>())) << file;
    }
    paths.insert(path(ad["crea"]["icon"]));
    const std::string id = ad["tmpl"];
    const std::string html = get(templatePath(id)).json()["data"]["html"];
    for (const char* placeholder :
         {"[@CLICK_URL]", "[@MAIN_ASSET]", "[@END_CARD_IMAGE]", "[@ICON_IMAGE]",
          "[@DESCRIPTION_TEXT]", "[@TITLE_TEXT]", "[@CTA_TEXT]"})
      EXPECT_TRUE(html.contains(placeholder)) << placeholder << " in " << id;
    // The SDK unescapes the document, which would break a script with a backslash.
    EXPECT_FALSE(html.contains('\\')) << id;
  }
  EXPECT_EQ(paths.size(), 15u);
  for (const std::string& name : paths) {
    const Reply whole = get(name);
    const Reply part = get(name, "Range: bytes=100-199\r\n");
    EXPECT_EQ(part.status, 206) << name;
    EXPECT_EQ(part.body, whole.body.substr(100, 100)) << name;
  }
  EXPECT_EQ(get("/creatives/../templates/playable.html").status, 404);
}

TEST_F(SandboxServer, IsControlledOverHttp) {
  const Json failsOnce = {
      {"endpoint", "/init"}, {"scenario", "http-500"}, {"delay", 120}, {"times", 1}};
  EXPECT_EQ(control("scenario", failsOnce), 200);
  EXPECT_EQ(get(kInitPath).status, 500);
  EXPECT_GE(server.exchanges("/init")[0].micros, 120'000);
  EXPECT_EQ(get(kInitPath).status, 200);
  for (const Json& wrong : {Json{{"endpoint", "/nowhere"}, {"scenario", "hang"}},
                            Json{{"endpoint", "/init"}, {"scenario", "missing"}},
                            Json{{"endpoint", "/init"}, {"scenario", 5}}})
    EXPECT_EQ(control("scenario", wrong), 400) << wrong;
  for (const char* wrong : {"none", "missing", "hang:data", "error:x", "delay:soon", "times:0",
                            "normal,delay:-1", "replace:time:{"})
    EXPECT_EQ(control("scenario", {{"endpoint", "/track"}, {"text", wrong}}), 400) << wrong;
  EXPECT_EQ(control("clock", Json::array()), 400);
  EXPECT_TRUE(get("/control/log").body.contains("GET /init  ok  [http-500]"));
  // The log stays readable after invalid UTF-8 and a body with a GET.
  EXPECT_EQ(get("/api/v1/init?aid=%ff%fe").status, 400);
  EXPECT_EQ(get(kInitPath, "Content-Length: 2\r\n\r\n{}").verdict(),
            "400 body: expected none with GET");
  EXPECT_EQ(get("/control/exchanges?since=3").json().size(), 2u);
  EXPECT_EQ(get("/control/exchanges?endpoint=/register").json().size(), 1u);
  EXPECT_EQ(get("/control/log").status, 200);

  EXPECT_EQ(control("template", {{"tmpl", "playable"}, {"html", "<p>new"}}), 200);
  EXPECT_EQ(get(kInitPath).json()["data"]["tmpv"]["playable"], 3);
  EXPECT_EQ(get(templatePath("playable")).json()["data"]["html"], "<p>new");
  EXPECT_EQ(get(templatePath("playable") + "&tver=2").json()["data"]["tver"], 2);
  EXPECT_EQ(get(templatePath("playable") + "&tver=4").verdict(),
            "400 tver: this template has no such version");

  const Reply reset = exchangeBytes(server.port(),
                                    "POST /control/reset HTTP/1.1\r\nHost: a\r\n"
                                    "Connection: close\r\n\r\n");
  EXPECT_EQ(reset.status, 200) << "a POST without a length has no body";
  EXPECT_TRUE(server.state().users.empty() && server.exchanges().empty());
}

TEST_F(SandboxServer, ChangesPlansAndExplainsWhyThereIsNoAd) {
  const CatalogueAdUnit& unit = adUnits()[0];
  for (const CataloguePlan& plan : unit.plans)
    EXPECT_EQ(control("plan", {{"plan", plan.id}, {"on", false}}), 200);
  EXPECT_EQ(control("plan", {{"plan", kSomeUUID}, {"on", true}}), 400);
  EXPECT_EQ(control("plan", {{"plan", unit.plans[0].id}, {"ecpm", -1}}), 400);
  call("/bid/init", bidRequest(uid));
  EXPECT_EQ(control("plan", {{"plan", unit.plans[1].id}, {"on", true}, {"ecpm", 5}, {"caph", 1}}),
            200);
  const Json offer = data("/bid/init", bidRequest(uid));
  EXPECT_EQ(offer["plans"], Json::array({{{"plan", unit.plans[1].id},
                                          {"ecpm", 5},
                                          {"caph", 1},
                                          {"capd", unit.plans[1].capDaily}}}));
  for (const Json& plan : {Json(kSomeUUID), Json(unit.plans[1].id), Json(unit.plans[1].id)})
    call("/bid/load", loadRequest(offer["bid"], plan));
  call("/bid/init", bidRequest(kSomeUUID));
  for (const Json& change :
       {Json{{"adt", "rewarded"}}, Json{{"adid", kSomeUUID}}, Json{{"osv", nullptr}}}) {
    Json body = bidRequest(uid);
    body.merge_patch(change);
    call("/bid/init", body);
  }
  for (const char* text : {"no-fill", "error:503:Busy", "missing:data.bid", "http-500"}) {
    server.setScenario("/bid/init", *Scenario::parse(text));
    call("/bid/init", bidRequest(uid));
  }
  std::vector<std::string> reasons;
  for (const Exchange& exchange : server.exchanges())
    if (exchange.endpoint.starts_with("/bid")) reasons.push_back(whyNoAd(exchange));
  using testing::HasSubstr;
  EXPECT_THAT(reasons, testing::ElementsAre(
                           HasSubstr("is switched off"), "", HasSubstr("plan: not one"), "",
                           HasSubstr("is closed (409 bid: already"),
                           HasSubstr("not know the user " + kSomeUUID),
                           HasSubstr("kind \"rewarded\""), HasSubstr("no ad unit " + kSomeUUID),
                           HasSubstr("osv: missing, expected a string"),
                           HasSubstr("\"no-fill\" is set for /bid/init, so no plan bids"),
                           HasSubstr("503 Busy"), HasSubstr("(data.bid: missing"), ""));
}

TEST(SandboxServerLife, KeepsUsersInItsFileAndExplainsWhyItCannotStart) {
  const test::TemporaryFolder folder;
  const std::string file = folder.path / "not" / "yet" / "there" / "sandbox.sqlite";
  std::string uid;
  {
    Server server({.database = file});
    ASSERT_TRUE(server.start());
    uid = post(server.port(), "/api/v1/register", request("/register")).json()["data"]["uid"];
    Server second({.port = server.port()});
    EXPECT_TRUE(second.start().error().contains("another program listens there"));
  }
  const auto busy = Scenario::parse("error:503:Busy,times:1").value();
  Server again({.database = file, .scenarios = {{"/bid/init", busy}}});
  ASSERT_TRUE(again.start());
  for (const char* verdict : {"503 Busy", "ok"})
    EXPECT_EQ(post(again.port(), "/api/v1/bid/init", bidRequest(uid)).verdict(), verdict);

  EXPECT_TRUE(Server({.data = "/nowhere"}).start().error().contains("cannot read"));
  EXPECT_TRUE(Server({.database = "/proc/nowhere/at/all"}).start().error().contains("database"));
  EXPECT_FALSE(Server({.scenarios = {{"/nowhere", {}}}}).start());
}

TEST_F(SandboxServer, EndsPromptlyWhileClientsHang) {
  server.setScenario("/register", {.behaviour = Behaviour::hang});
  server.setScenario("/init", {.delay = 1h});
  std::vector<std::jthread> clients;
  for (int i = 0; i < 20; ++i) {
    clients.emplace_back([&] { get(kInitPath); });
    clients.emplace_back([&] { call("/register", request("/register")); });
  }
  EXPECT_TRUE(server.waitForExchanges(
      "/register", [](const auto& all) { return all.size() == 21; }, 10s));
  const auto begun = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s);
}

}  // namespace
}  // namespace kva::sandbox
