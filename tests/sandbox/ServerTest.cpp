#include "sandbox/Server.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <thread>

#include "Kelvara/platform/Digest.h"
#include "sandbox/Requests.h"

namespace kva::sandbox {
namespace {

using namespace std::chrono_literals;

class SandboxServer : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }
  Reply call(const std::string& endpoint, const Json& body) {
    return post(server.port(), "/api/v1" + endpoint, body);
  }
  Server server;
};

TEST_F(SandboxServer, ServesAnInstallationFromItsStartToItsReports) {
  server.setClockSkew(1h);
  auto before = std::chrono::system_clock::now().time_since_epoch();
  Json application = get(server.port(), initPath()).json();
  auto ahead = std::chrono::milliseconds(application["time"].get<std::int64_t>()) - before;
  EXPECT_TRUE(ahead > 59min && ahead < 61min);
  EXPECT_EQ(application["data"]["sett"]["dip"], 200);
  EXPECT_EQ(application["data"]["pp"], "http://sandbox.test/creatives/privacy.html");
  EXPECT_EQ(application["data"]["tids"][0]["idfa"], md5Hex(kTesterIDFA));

  std::string uid = registeredUser(server.port());
  Json changed = userRecord();
  changed["lng"] = "de";
  changed["uid"] = uid;
  EXPECT_EQ(call("/update", changed).json()["data"]["uid"], uid);

  Json offer = call("/bid/init", bidRequest(uid)).json()["data"];
  std::string bid = offer["bid"], plan = offer["plans"][1]["plan"];
  EXPECT_GT(offer["plans"][0]["ecpm"], offer["plans"][1]["ecpm"]);
  Json ad = call("/bid/load", loadRequest(bid, plan)).json()["data"];
  EXPECT_EQ(ad["bid"], bid);
  EXPECT_EQ(Json::parse(ad["crea"]["bton"].get<std::string>())["de"], "Leuchten sehen");

  std::string lost = call("/bid/init", bidRequest(uid)).json()["data"]["bid"];
  EXPECT_EQ(call("/bid/lost", {{"bid", lost}, {"lecpm", 1234}}).verdict(), "ok");

  Json first = report(bid), second = report(bid);
  first.update({{"imp", true}, {"time", 1700000000000}, {"quar", 3}});
  second.update({{"dism", true}, {"clck", true}, {"quar", 2}});
  EXPECT_EQ(call("/bid/stats", statsRequest(uid, {first})).verdict(), "ok");
  EXPECT_EQ(call("/bid/stats", statsRequest(uid, {second, report(kSomeUUID)})).verdict(), "ok");

  EXPECT_TRUE(call("/track", trackRequest("")).json()["data"]["plan"].is_null());
  EXPECT_EQ(call("/track", trackRequest(std::string(kTesterIDFA))).json()["data"]["plan"],
            kCampaignPlan);

  State state = server.state();
  ASSERT_EQ(state.users.size(), 1u);
  EXPECT_EQ(state.users[0].updates, 1);
  EXPECT_EQ(Json::parse(state.users[0].record)["lng"], "de");
  ASSERT_TRUE(state.bid(bid) && state.bid(lost));
  EXPECT_EQ(state.bid(bid)->status, BidRecord::Status::loaded);
  EXPECT_EQ(state.bid(bid)->plan, plan);
  EXPECT_EQ(state.bid(bid)->clearingPrice, 4100);
  EXPECT_EQ(state.bid(lost)->status, BidRecord::Status::lost);
  EXPECT_EQ(state.bid(lost)->clearingPrice, 1234);
  const ReportRecord* merged = state.report(bid);
  ASSERT_TRUE(merged);
  EXPECT_TRUE(merged->bidKnown && merged->impression && merged->dismissed && merged->clicked);
  EXPECT_FALSE(merged->completed || merged->failToShow);
  EXPECT_EQ(merged->impressionAt, 1700000000000);
  EXPECT_EQ(merged->quarter, 3);
  EXPECT_EQ(merged->received, 2);
  EXPECT_FALSE(state.report(kSomeUUID)->bidKnown);
  EXPECT_EQ(state.tracks.size(), 2u);
}

TEST_F(SandboxServer, ServesEveryFileThatItsAdsName) {
  std::string uid = registeredUser(server.port());
  std::set<std::string> paths;
  for (const CatalogueAdUnit& unit : adUnits()) {
    Json offer =
        call("/bid/init", bidRequest(uid, unit.id, std::string(unit.adType))).json()["data"];
    Json ad =
        call("/bid/load", loadRequest(offer["bid"], offer["plans"][0]["plan"])).json()["data"];
    std::set<std::string> orientations;
    for (const Json& file : ad["fls"]) {
      paths.insert(file["furl"].get<std::string>().substr(sizeof "http://sandbox.test" - 1));
      orientations.insert(file["ornt"]);
    }
    EXPECT_EQ(orientations.size(), 2u) << unit.id;
    paths.insert(ad["crea"]["icon"].get<std::string>().substr(sizeof "http://sandbox.test" - 1));

    Json page = get(server.port(), "/api/v1/template?aid=" + std::string(kApplicationId) +
                                       "&tmpl=" + ad["tmpl"].get<std::string>())
                    .json()["data"];
    std::string html = page["html"];
    for (const char* placeholder :
         {"[@CLICK_URL]", "[@MAIN_ASSET]", "[@END_CARD_IMAGE]", "[@ICON_IMAGE]",
          "[@DESCRIPTION_TEXT]", "[@TITLE_TEXT]", "[@CTA_TEXT]"}) {
      EXPECT_TRUE(html.contains(placeholder)) << placeholder << " in " << page["tmpl"];
    }
    // The SDK turns escapes into the characters they stand for, which would break a script.
    EXPECT_FALSE(html.contains('\\')) << page["tmpl"];
  }
  EXPECT_EQ(paths.size(), 14u);
  for (const std::string& path : paths) {
    Reply whole = get(server.port(), path);
    EXPECT_EQ(whole.status, 200) << path;
    const char* type = path.ends_with(".mp4")    ? "Content-Type: video/mp4"
                       : path.ends_with(".webm") ? "Content-Type: video/webm"
                                                 : "Content-Type: image/svg+xml";
    EXPECT_TRUE(whole.head.contains(type)) << path << "\n" << whole.head;
    Reply part = get(server.port(), path, "Range: bytes=100-199\r\n");
    EXPECT_EQ(part.status, 206) << path;
    EXPECT_EQ(part.body, whole.body.substr(100, 100)) << path;
  }
  EXPECT_EQ(get(server.port(), "/creatives/../templates/playable.html").status, 404);
}

TEST_F(SandboxServer, KeepsItsRules) {
  std::string uid = registeredUser(server.port());
  Json offer = call("/bid/init", bidRequest(uid)).json()["data"];
  std::string bid = offer["bid"], plan = offer["plans"][0]["plan"];
  Json stranger = userRecord(), foreign = userRecord();
  stranger["uid"] = kSomeUUID;
  foreign["aid"] = kSomeUUID;

  EXPECT_EQ(call("/register", foreign).verdict(), "403 aid: no such application");
  EXPECT_EQ(call("/update", stranger).verdict(), "404 uid: no such user");
  EXPECT_EQ(call("/bid/init", bidRequest(kSomeUUID)).verdict(), "404 uid: no such user");
  EXPECT_EQ(call("/bid/stats", statsRequest(kSomeUUID, {report(bid)})).verdict(),
            "404 uid: no such user");
  EXPECT_EQ(call("/bid/init", bidRequest(uid, kSomeUUID)).verdict(), "400 adid: no such ad unit");
  EXPECT_EQ(call("/bid/init", bidRequest(uid, kRewardedAdUnit)).verdict(),
            "400 adt: this ad unit is rewarded");
  EXPECT_EQ(call("/bid/lost", {{"bid", kSomeUUID}, {"lecpm", 1}}).verdict(),
            "400 bid: no such bid");
  EXPECT_EQ(call("/bid/load", loadRequest(bid, kSomeUUID)).verdict(),
            "400 plan: not one that was offered for this bid");
  EXPECT_EQ(call("/bid/load", loadRequest(bid, plan)).verdict(), "ok");
  EXPECT_EQ(call("/bid/load", loadRequest(bid, plan)).verdict(), "409 bid: already loaded");
  EXPECT_EQ(call("/bid/lost", {{"bid", bid}, {"lecpm", 1}}).verdict(), "409 bid: already loaded");
  EXPECT_TRUE(server.state().reports.empty());
}

TEST_F(SandboxServer, PublishesTemplatesInVersions) {
  std::string path = "/api/v1/template?aid=" + std::string(kApplicationId) + "&tmpl=";
  auto announced = [&] {
    return get(server.port(), initPath()).json()["data"]["tmpv"]["playable"];
  };
  EXPECT_EQ(announced(), 2);
  EXPECT_FALSE(server.publishTemplate("none", "x"));
  EXPECT_TRUE(server.publishTemplate("playable", "<p>new"));
  EXPECT_EQ(announced(), 3);
  EXPECT_EQ(get(server.port(), path + "playable").json()["data"]["html"], "<p>new");
  EXPECT_EQ(get(server.port(), path + "playable&tver=2").json()["data"]["tver"], 2);
  EXPECT_EQ(get(server.port(), path + "playable&tver=4").verdict(),
            "400 tver: this template has no such version");
  EXPECT_EQ(get(server.port(), path + "none").verdict(), "400 tmpl: no such template");
}

TEST_F(SandboxServer, IsDrivenAndReadOverHttp) {
  auto control = [&](const Json& body) { return post(server.port(), "/control/scenario", body); };
  EXPECT_EQ(control({{"endpoint", "/init"},
                     {"scenario", "error"},
                     {"code", 7},
                     {"message", "No"},
                     {"times", 1}})
                .status,
            200);
  EXPECT_EQ(get(server.port(), "/control/scenarios").json()["/init"]["code"], 7);
  EXPECT_EQ(get(server.port(), initPath()).verdict(), "7 No");
  EXPECT_EQ(get(server.port(), initPath()).verdict(), "ok");
  EXPECT_EQ(control({{"endpoint", "/nowhere"}, {"scenario", "hang"}}).status, 400);
  EXPECT_EQ(control({{"endpoint", "/init"}, {"scenario", "missing"}}).status, 400);
  EXPECT_EQ(control({{"endpoint", "/init"}, {"scenario", 5}}).status, 400);
  EXPECT_EQ(post(server.port(), "/control/clock", Json::array()).status, 400);

  std::string uid = registeredUser(server.port());
  Json exchanges = get(server.port(), "/control/exchanges?endpoint=/init").json();
  ASSERT_EQ(exchanges.size(), 2u);
  EXPECT_EQ(exchanges[0]["verdict"], "7 No");
  EXPECT_EQ(exchanges[0]["scenario"], "error");
  EXPECT_TRUE(get(server.port(), "/control/log").body.contains("GET /init  7 No  [error]"));
  EXPECT_EQ(get(server.port(), "/control/state").json()["users"][0]["uid"], uid);

  EXPECT_EQ(post(server.port(), "/control/reset", Json::object()).status, 200);
  EXPECT_TRUE(server.state().users.empty() && server.exchanges().empty());
}

TEST(SandboxServerLife, RemembersInItsFileAndSaysWhyItCannotStart) {
  auto file = std::filesystem::temp_directory_path() / ("sandbox-" + std::to_string(getpid()));
  std::string uid;
  {
    Server server({.database = file.string()});
    ASSERT_TRUE(server.start());
    uid = registeredUser(server.port());
    Server second({.port = server.port()});
    EXPECT_TRUE(second.start().error().contains("cannot listen"));
  }
  Server again({.database = file.string()});
  ASSERT_TRUE(again.start());
  EXPECT_EQ(post(again.port(), "/api/v1/bid/init", bidRequest(uid)).verdict(), "ok");
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(file.string() + suffix);

  EXPECT_TRUE(Server({.data = "/nowhere"}).start().error().contains("cannot read"));
  EXPECT_TRUE(Server({.database = "/nowhere/at/all"}).start().error().contains("database"));
  EXPECT_FALSE(Server({.scenarios = {{"/nowhere", {}}}}).start());
}

TEST(SandboxServerLife, EndsPromptlyWhileClientsHang) {
  Server server;
  ASSERT_TRUE(server.start());
  server.setScenario("*", {.behaviour = Behaviour::hang});
  server.setScenario("/init", {.delay = 1h});
  std::vector<std::thread> clients;
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back([&, i] {
      i % 2 ? get(server.port(), initPath(), "")
            : post(server.port(), "/api/v1/register", userRecord());
    });
  }
  EXPECT_TRUE(server.waitForExchanges(
      "/register", [](const auto& all) { return all.size() == 20; }, 10s));
  auto begun = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s);
  for (std::thread& client : clients) client.join();
}

}  // namespace
}  // namespace kva::sandbox
