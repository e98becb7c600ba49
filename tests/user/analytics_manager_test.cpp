#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using headless::envelope;
using headless::errorEnvelope;
using Keys = SDKHelper::UserDefaultKeys;

std::string user(const std::string& id, std::int64_t time = 0) {
  return envelope(R"({"uid":")" + id + "\"}", time);
}

class Analytics : public testing::Test {
 protected:
  Analytics() { launch(); }

  /// Ends the process, if one runs, and begins the next on the same device.
  void launch() {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
    Log::shared().setLogLevel(LogLevel::d);
    h.server.clearRequests();
    h.output.clear();
  }

  AnalyticsManager& analytics() { return AnalyticsManager::shared(); }

  /// Registers and answers what the completion heard.
  std::optional<Error> registration() {
    std::optional<std::optional<Error>> heard;
    analytics().register_([&](std::optional<Error> error) { heard = std::move(error); });
    EXPECT_TRUE(h.time.runUntil([&] { return heard.has_value(); }));
    return heard.value_or(std::nullopt);
  }

  void updateIfNeeded() {
    analytics().updateIfNeeded();
    h.time.advance(1);
  }

  headless::Headless h;
  std::unique_ptr<Runtime> runtime;
};

TEST_F(Analytics, RegistersOnceAndUpdatesWhenTheDeviceChanged) {
  h.server.reply("/register", user("u1"), 0.1);
  h.server.reply("/update", user("u2"), 0.1);

  updateIfNeeded();
  EXPECT_EQ(h.server.count(""), 0) << "an unregistered user is not updated";
  EXPECT_EQ(registration(), std::nullopt);
  EXPECT_EQ(registration(), std::nullopt);
  EXPECT_EQ(h.server.count("/register"), 1);
  EXPECT_EQ(h.server.lastRequest("/register").json(), analytics().defaultUser().dictionaryValue());
  EXPECT_EQ(h.output.count("<KVA> [D]: Register success: u1"), 1);
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), "u1");

  launch();
  EXPECT_EQ(analytics().userId(), "u1");
  updateIfNeeded();
  EXPECT_EQ(h.server.count(""), 0);
  EXPECT_EQ(h.output.count("<KVA> [D]: No need to user update."), 1);

  h.device.setSystemVersion("7.0");
  updateIfNeeded();
  EXPECT_EQ(h.server.count(""), 0) << "a change in the run waits for the next launch";

  launch();
  h.server.reply("/update", errorEnvelope(500, "Down."));
  updateIfNeeded();
  EXPECT_EQ(h.output.count("<KVA> [E]: User update error: Down."), 1);
  EXPECT_NE(User::lastUploaded(), analytics().defaultUser());

  launch();
  h.server.reply("/update", user("u2"));
  updateIfNeeded();
  const Json sent = h.server.lastRequest("/update").json();
  EXPECT_EQ(sent["uid"], "u1");
  EXPECT_EQ(sent["osv"], "7.0");
  EXPECT_EQ(h.output.count("<KVA> [D]: User update success: u2"), 1);
  EXPECT_EQ(analytics().userId(), "u2");
  EXPECT_EQ(User::lastUploaded(), analytics().defaultUser());
}

TEST_F(Analytics, HandsOnAFailedRegistrationAndKeepsNothing) {
  h.server.reply("/register", errorEnvelope(42, "Refused."));
  const auto error = registration();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 42);
  EXPECT_EQ(h.output.count("<KVA> [E]: Register error: Refused."), 1);
  EXPECT_FALSE(analytics().isRegistered());
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), std::nullopt);
  EXPECT_EQ(User::lastUploaded(), std::nullopt);
  h.server.reply("/register", user("u1"));
  EXPECT_EQ(registration(), std::nullopt);
  EXPECT_TRUE(analytics().isRegistered());
}

TEST_F(Analytics, RegistersAnewWhenTheServerDoesNotKnowTheUser) {
  h.server.reply("/register", user("u1"));
  registration();
  h.device.setSystemVersion("7.0");
  launch();
  h.server.reply("/update", errorEnvelope(404, "No such user."));
  h.server.reply("/register", user("u2"), 5);
  updateIfNeeded();
  EXPECT_FALSE(analytics().isRegistered());
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), std::nullopt);
  h.time.advance(5);
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), "u2");
  EXPECT_EQ(h.server.count("/register"), 1);
}

TEST_F(Analytics, HoldsTheLastAnswerOfRegistrationsAtTheSameTime) {
  int answers = 0;
  h.server.reply(
      "/register",
      [&](const auto&) { return headless::answer(user("u" + std::to_string(++answers))); }, 1);
  int completions = 0;
  const auto count = [&](std::optional<Error> error) {
    EXPECT_EQ(error, std::nullopt);
    ++completions;
  };
  analytics().register_(count);
  analytics().register_(count);
  h.time.advance(0.5);
  analytics().logout();  // while both are under way
  h.time.advance(2);
  EXPECT_EQ(completions, 2);
  EXPECT_EQ(analytics().userId(), "u3");
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), "u3");
}

TEST_F(Analytics, KeepsTheServersClockAcrossLaunches) {
  h.time.setNow(1'700'000'000);
  h.server.reply("/register", user("u1", 1'700'000'000'500));
  registration();
  h.time.run();
  EXPECT_EQ(h.defaults.get<std::int64_t>(Keys::deltaTime), 500);
  EXPECT_EQ(analytics().serverTime(), 1'700'000'000'500);
  launch();
  h.time.setNow(1'700'000'060.25);
  EXPECT_EQ(analytics().serverTime(), 1'700'000'060'750);

  analytics().setDeltaTime(1);  // replaced, however far away
  EXPECT_EQ(analytics().serverTime(), 1);
}

TEST_F(Analytics, TakesAStoredValueOfAnotherTypeForMissing) {
  h.defaults.set(Keys::userId, std::int64_t{7});
  h.defaults.set(Keys::deltaTime, 7.0);
  launch();
  h.time.setNow(100);
  EXPECT_FALSE(analytics().isRegistered());
  EXPECT_EQ(analytics().serverTime(), 100'000);
  h.defaults.set(Keys::userId, std::string());
  launch();
  EXPECT_TRUE(analytics().isRegistered()) << "an empty id is an id";
}

TEST_F(Analytics, StopsTheProcessWhenTheClockOverflows) {
  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_DEATH(analytics().setDeltaTime(Limits::min()), "Kelvara: fatal: the difference");
  EXPECT_DEATH(
      {
        analytics().setDeltaTime(Limits::max());
        h.time.advance(1);
        analytics().serverTime();
      },
      "Kelvara: fatal: the server's time");
}

TEST_F(Analytics, KeepsMemoryAndStoreTogetherUnderThreads) {
  const auto play = [&](std::int64_t offset) {
    for (std::int64_t i = 0; i < 500; ++i) {
      analytics().setDeltaTime(1'800'000'000'000 + offset * i);
      analytics().logout();
      analytics().serverTime();
    }
  };
  std::thread first(play, 1), second(play, 7);
  first.join();
  second.join();
  const std::int64_t stored = h.defaults.get<std::int64_t>(Keys::deltaTime).value();
  EXPECT_EQ(analytics().serverTime() - stored, static_cast<std::int64_t>(h.time.now() * 1000));
}

}  // namespace
}  // namespace kva
