#include <memory>
#include <vector>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/user/Device.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

struct Answer {
  std::shared_ptr<KVABidResponse> bid;
  std::optional<Error> error;
};

class BidLoader : public AdsTest {
 protected:
  std::vector<Answer> answers;

  BidLoader() { h.server.reply("/register", headless::envelope(R"({"uid": "user-1"})")); }

  void load(const std::string& adUnit = kAdUnit, KVABidType type = KVABidType::interstitial) {
    KVABidLoader::loadBid(adUnit, type, [this](auto bid, auto error) {
      answers.push_back({bid, error});
    });
  }

  /// What came of one more bid, which is answered once.
  Answer bid() {
    answers.clear();
    load();
    h.time.run();
    EXPECT_EQ(answers.size(), 1u);
    return answers.empty() ? Answer() : answers.front();
  }

  /// The error of one more bid, which sends nothing and is answered before the call returns.
  Error refusal(const std::string& adUnit = kAdUnit) {
    answers.clear();
    const auto sent = h.server.requests().size();
    load(adUnit);
    EXPECT_EQ(h.server.requests().size(), sent);
    EXPECT_EQ(answers.size(), 1u);
    EXPECT_FALSE(answers.at(0).bid);
    return answers.at(0).error.value();
  }

  void offer(const std::string& plans) {
    h.server.reply("/bid/init",
                   headless::envelope(R"({"bid": ")" + kBid + R"(", "plans": )" + plans + "}"));
  }
  void offerOpenPlan() {
    offer(R"([{"plan": ")" + kPlanB + R"(", "capd": 0, "caph": 0, "ecpm": 2500}])");
  }
};

TEST_F(BidLoader, RefusesInOrderWithoutTraffic) {
  EXPECT_EQ(refusal("nonsense"), Error("Kelvara", 2, "SDK isn't initialized."));
  start();
  setNetwork(false);
  EXPECT_EQ(refusal("nonsense"), Error("Kelvara", 3, "AdUnit isn't valid."));
  FrequencyCappingManager::shared().trackNofill(kAdUnit);
  EXPECT_EQ(refusal(), Error("Kelvara", 4, "No internet connection."));
  setNetwork(true);
  EXPECT_EQ(refusal(), Error("Kelvara", 8, "Wait 30 seconds for ad request."));
}

TEST_F(BidLoader, BidsWithTheFirstPlanThatItsCapsAllow) {
  start();
  Log::shared().setLogLevel(LogLevel::d);
  FrequencyCappingManager::shared().trackImpression(kPlanA);
  offer(R"([{"plan": ")" + kPlanA + R"(", "capd": 0, "caph": 1, "ecpm": 9000},
            {"plan": ")" +
        kPlanB + R"(", "capd": 0, "caph": 0, "ecpm": 2500},
            {"plan": "last", "capd": 0, "caph": 0, "ecpm": 8000}])");
  const auto [bid, error] = this->bid();
  ASSERT_TRUE(bid);
  EXPECT_FALSE(error);
  EXPECT_EQ(bid->planId(), kPlanB);
  EXPECT_EQ(bid->bidId(), kBid);
  EXPECT_EQ(bid->price(), 2.5);
  EXPECT_TRUE(bid->isValid());
  EXPECT_EQ(h.output.count("Frequency capping reached for plan "), 1);
  EXPECT_EQ(h.output.count("<KVA> [D]: Frequency capping reached for plan " + kPlanA), 1);
}

TEST_F(BidLoader, AsksWithEightEntries) {
  start();
  offerOpenPlan();
  for (const auto& [type, name] : {std::pair(KVABidType::interstitial, "interstitial"),
                                   std::pair(KVABidType::rewarded, "rewarded")}) {
    load(kAdUnit, type);
    h.time.run();
    EXPECT_EQ(h.server.lastRequest("/bid/init").json(),
              Json({{"aid", kAppId},
                    {"uid", "user-1"},
                    {"adid", kAdUnit},
                    {"pl", SDKHelper::Device::platform()},
                    {"adt", name},
                    {"osv", h.device.systemVersion()},
                    {"dbra", SDKHelper::Device::deviceBrand()},
                    {"dmod", SDKHelper::Device::deviceModel()}}));
  }
}

TEST_F(BidLoader, AnAnswerWithoutAnAllowedPlanIsNoNofill) {
  start();
  offer("[]");
  EXPECT_EQ(bid().error, Error("Kelvara", 5, "No plan."));
  FrequencyCappingManager::shared().trackImpression(kPlanA);
  offer(R"([{"plan": ")" + kPlanA + R"(", "capd": 1, "caph": 0, "ecpm": 1}])");
  EXPECT_EQ(bid().error, Error("Kelvara", 5, "No active plan."));
  offerOpenPlan();
  EXPECT_TRUE(bid().bid);
}

TEST_F(BidLoader, PlansWithoutABidStopTheProcess) {
  start();
  h.server.reply(
      "/bid/init",
      headless::envelope(R"({"plans": [{"plan": "p", "capd": 0, "caph": 0, "ecpm": 1}]})"));
  EXPECT_DEATH(bid(), "plans and no bid");
}

TEST_F(BidLoader, EveryFailureButAMissingNetworkStartsThePause) {
  start();
  enum class Pause { no, yes };
  const struct {
    headless::Server::Outcome outcome;
    std::int64_t code;
    const char* message;  // null: the transport's own
    Pause pause;
  } cases[] = {
      {headless::answer(headless::errorEnvelope(42, "full")), 42, "full", Pause::yes},
      {headless::answer("nonsense"), -1, "Unknown network error.", Pause::yes},
      {headless::answer(headless::envelope("null")), -1, "Unknown init error.", Pause::yes},
      {headless::answer(headless::envelope(R"({"plans": 7})")), -1, "Unknown network error.",
       Pause::yes},
      {headless::failure(URLError::timedOut), 1001, nullptr, Pause::yes},
      {headless::failure(URLError::notConnectedToInternet), 1009, nullptr, Pause::no},
      {headless::answer(headless::errorEnvelope(1009, "odd")), 1009, "odd", Pause::no},
  };
  for (const auto& [outcome, code, message, pause] : cases) {
    h.server.reply("/bid/init", outcome);
    const auto error = bid().error;
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), code);
    if (message) {
      EXPECT_EQ(error->localizedDescription(), message);
    }
    if (pause == Pause::yes) {
      EXPECT_EQ(refusal().code(), 8) << code;
      h.time.advance(31);
    }
  }
  offerOpenPlan();
  EXPECT_TRUE(bid().bid);
}

TEST_F(BidLoader, RegistersTheUserFirst) {
  h.server.reply("/register", headless::errorEnvelope(7, "not now"));
  start();
  h.time.run();
  h.server.clearRequests();
  offerOpenPlan();
  EXPECT_EQ(bid().error, Error("Kelvara", 7, "not now"));
  EXPECT_EQ(h.server.count("/bid/init"), 0);

  h.server.reply("/register", headless::envelope(R"({"uid": "user-2"})"));
  EXPECT_TRUE(bid().bid);  // a failed registration is no no-fill
  EXPECT_EQ(h.server.lastRequest("/bid/init").json()["uid"], "user-2");
  EXPECT_TRUE(bid().bid);
  EXPECT_EQ(h.server.count("/register"), 2);
  EXPECT_EQ(h.server.count("/bid/init"), 2);
}

TEST_F(BidLoader, HostsMayCallBackInOrNotListenAtAll) {
  start();
  offerOpenPlan();
  int inner = 0;
  KVABidLoader::loadBid(kAdUnit, KVABidType::rewarded, [&](auto bid, auto) {
    bid->setPrice(3);
    KVABidLoader::sendBidLost(bid, bid->price());
    KVABidLoader::loadBid(kAdUnit, KVABidType::rewarded, [&](auto, auto) { ++inner; });
  });
  KVABidLoader::loadBid(kAdUnit, KVABidType::rewarded, {});
  KVABidLoader::loadBid("nonsense", KVABidType::rewarded, {});
  h.time.run();
  EXPECT_EQ(inner, 1);
  EXPECT_EQ(h.server.count("/bid/init"), 3);
  EXPECT_EQ(h.server.count("/bid/lost"), 1);
}

TEST_F(BidLoader, LostBidsAreSentAndOnlyLogged) {
  const auto bid = std::make_shared<KVABidResponse>(kPlanA, kBid, 1);
  KVABidLoader::sendBidLost(bid, 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: SDK isn't initialized."), 1);
  start();
  Log::shared().setLogLevel(LogLevel::d);
  setNetwork(false);
  KVABidLoader::sendBidLost(bid, 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: No internet connection."), 1);
  setNetwork(true);
  KVABidLoader::sendBidLost(nullptr, 1);
  EXPECT_EQ(h.server.count("/bid/lost"), 0);

  h.server.reply("/bid/lost", headless::envelope("true"));
  KVABidLoader::sendBidLost(bid, 1.2349);
  h.time.run();
  EXPECT_EQ(h.server.lastRequest("/bid/lost").json(), Json({{"bid", kBid}, {"lecpm", 1234}}));
  EXPECT_EQ(h.output.count("<KVA> [D]: Lost sent successfully."), 1);
  h.server.reply("/bid/lost", headless::errorEnvelope(9, "unknown bid"));
  KVABidLoader::sendBidLost(bid, 1);
  h.time.run();
  EXPECT_EQ(h.output.count("<KVA> [D]: SendLost error: unknown bid"), 1);
}

}  // namespace
}  // namespace kva
