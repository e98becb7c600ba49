#include <gtest/gtest.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>
#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include "platform/linux_support.h"
#include "story/HostProcess.h"

namespace kva::story {
namespace {

using sandbox::kApplicationId;
using sandbox::kImageTemplate;
using sandbox::kInterstitialAdUnit;

class RestartStory : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }

  HostProcess launch(const std::string& appVersion = "1.0") {
    return {server.baseURL(), folder.path / "defaults.sqlite", appVersion};
  }
  static void start(HostProcess& host) {
    ASSERT_EQ(host.await("ready"), "ready");
    ASSERT_EQ(host.ask("start " + std::string(kApplicationId), "started"), "started 0");
  }
  static std::string bid(HostProcess& host) {
    return host.ask("bid " + std::string(kInterstitialAdUnit), "");
  }
  std::size_t requests(const char* endpoint) { return server.exchanges(endpoint).size(); }

  test::TemporaryFolder folder;
  sandbox::Server server;
};

TEST_F(RestartStory, RegistersOnceAndUpdatesOnlyWhatChanged) {
  std::string uid;
  {
    auto first = launch();
    start(first);
    EXPECT_EQ(requests("/register"), 0u) << "registered before the first bid";
    EXPECT_EQ(bid(first).substr(0, 4), "bid ");
    EXPECT_EQ(requests("/register"), 1u);
    ASSERT_EQ(server.state().users.size(), 1u);
    uid = server.state().users[0].uid;
  }
  {
    auto second = launch();
    start(second);
    EXPECT_EQ(bid(second).substr(0, 4), "bid ");
  }
  EXPECT_EQ(requests("/update"), 0u) << "nothing had changed";
  {
    auto updated = launch("2.0");
    start(updated);
    ASSERT_TRUE(server.waitForExchanges(
        "/update", [](const auto& all) { return all.size() == 1; }, std::chrono::seconds(10)));
    EXPECT_EQ(bid(updated).substr(0, 4), "bid ");
  }
  EXPECT_EQ(requests("/register"), 1u);
  EXPECT_EQ(requests("/update"), 1u);
  ASSERT_EQ(server.state().users.size(), 1u);
  EXPECT_EQ(server.state().users[0].uid, uid);
  EXPECT_NE(server.state().users[0].record.find("\"2.0\""), std::string::npos);
}

TEST_F(RestartStory, KeepsCountersAndTemplatesAndForgetsNoFillsAndUsedBids) {
  const std::string dearestPlan(sandbox::findAdUnit(kInterstitialAdUnit)->plans[0].id);
  std::string firstBid;
  {
    auto first = launch();
    start(first);
    firstBid = bid(first);
    EXPECT_TRUE(firstBid.ends_with(dearestPlan)) << firstBid;
    EXPECT_EQ(first.ask("template " + std::string(kImageTemplate), "template"), "template 3");
    for (int shown = 0; shown < 3; ++shown) first.ask("impression " + dearestPlan, "impression");
    EXPECT_FALSE(bid(first).ends_with(dearestPlan)) << "its cap of three was reached";
    EXPECT_EQ(first.ask("load", "ad").substr(0, 3), "ad ");
    EXPECT_EQ(first.ask("load", "ad"), "ad failed 9") << "a bid serves one ad";
    server.setScenario("/bid/init", {.behaviour = sandbox::Behaviour::serverError, .times = 1});
    EXPECT_EQ(bid(first), "no bid 500");
    EXPECT_EQ(bid(first), "no bid 8") << "the back-off runs";
  }
  EXPECT_EQ(requests("/template"), 1u);
  {
    auto second = launch();
    start(second);
    const std::string answer = bid(second);
    EXPECT_EQ(answer.substr(0, 4), "bid ") << "the no-fill was remembered";
    EXPECT_FALSE(answer.ends_with(dearestPlan)) << "the counters were lost";
    EXPECT_EQ(second.ask("template " + std::string(kImageTemplate), "template"), "template 3");
  }
  EXPECT_EQ(requests("/template"), 1u) << "the template was fetched again";
}

}  // namespace
}  // namespace kva::story
