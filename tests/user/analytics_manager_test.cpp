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

class Analytics : public testing::Test {
 protected:
  Analytics() { launch(); }

  /// Ends the process, if one runs, and begins the next on the same device.
  void launch() {
    runtime.reset();
    runtime = std::make_unique<Runtime>(h.platform());
    Log::shared().setLogLevel(LogLevel::d);
    h.server.clearRequests();
  }

  AnalyticsManager& analytics() { return AnalyticsManager::shared(); }

  /// Registers, and answers the error's code, or 0.
  std::int64_t registration() {
    std::optional<std::int64_t> heard;
    analytics().register_([&](auto error) { heard = error ? error->code() : 0; });
    EXPECT_TRUE(h.time.runUntil([&] { return heard.has_value(); }));
    return *heard;
  }

  /// How many updates are sent.
  int updates() {
    analytics().updateIfNeeded();
    h.time.advance(1);
    return h.server.count("/update");
  }

  headless::Headless h;
  std::unique_ptr<Runtime> runtime;
};

TEST_F(Analytics, RegistersOnceAndUpdatesWhenTheDeviceChanged) {
  EXPECT_EQ(updates(), 0) << "an unregistered user is not updated";
  h.server.reply("/register", errorEnvelope(42, "Refused."));
  EXPECT_EQ(registration(), 42);
  EXPECT_EQ(h.output.count("<KVA> [E]: Register error: Refused."), 1);
  EXPECT_EQ(h.defaults.get<std::string>(Keys::userId), std::nullopt);
  EXPECT_EQ(User::lastUploaded(), std::nullopt);

  h.server.reply("/register", envelope(R"({"uid":"u1"})"));
  EXPECT_EQ(registration(), 0);
  EXPECT_EQ(registration(), 0);
  EXPECT_EQ(h.server.count("/register"), 2);
  EXPECT_EQ(h.server.lastRequest("/register").json(), analytics().defaultUser().dictionaryValue());
  EXPECT_EQ(h.output.count("<KVA> [D]: Register success: u1"), 1);
  h.device.setSystemVersion("7.0");
  EXPECT_EQ(updates(), 0) << "a change in the run waits for the next launch";
  EXPECT_EQ(h.output.count("<KVA> [D]: No need to user update."), 1);

  launch();
  h.server.reply("/update", errorEnvelope(500, "Down."));
  EXPECT_EQ(updates(), 1);
  EXPECT_EQ(h.output.count("<KVA> [E]: User update error: Down."), 1);
  h.server.reply("/update", envelope(R"({"uid":"u2"})"));
  EXPECT_EQ(updates(), 2);
  EXPECT_EQ(h.server.lastRequest("/update").json()["uid"], "u1");
  EXPECT_EQ(h.server.lastRequest("/update").json()["osv"], "7.0");
  EXPECT_EQ(h.output.count("<KVA> [D]: User update success: u2"), 1);

  launch();
  EXPECT_EQ(analytics().userId(), "u2");
  EXPECT_EQ(updates(), 0);
}

TEST_F(Analytics, KeepsTheServersClockAcrossLaunches) {
  h.time.setNow(1'700'000'000);
  analytics().setDeltaTime(1'700'000'000'500);
  EXPECT_EQ(h.defaults.get<std::int64_t>(Keys::deltaTime), 500);
  launch();
  h.time.setNow(1'700'000'060.25);
  EXPECT_EQ(analytics().serverTime(), 1'700'000'060'750);

  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_DEATH(analytics().setDeltaTime(Limits::min()), "Kelvara: fatal: the difference");
  analytics().setDeltaTime(Limits::max());
  h.time.advance(1);
  EXPECT_DEATH(analytics().serverTime(), "Kelvara: fatal: the server's time");
}

TEST_F(Analytics, KeepsMemoryAndStoreTogetherUnderThreads) {
  h.time.setNow(0);
  const auto play = [&](std::int64_t first) {
    for (std::int64_t i = 0; i < 2000; ++i) analytics().setDeltaTime(first + i);
  };
  std::thread other(play, 1'000'000);
  play(0);
  other.join();
  EXPECT_EQ(analytics().serverTime(), h.defaults.get<std::int64_t>(Keys::deltaTime));
}

}  // namespace
}  // namespace kva
