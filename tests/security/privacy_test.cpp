// What leaves the device, and who can read what stays on it.
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/StringExtensions.h>
#include <Kelvara/reporting/ReportManager.h>
#include <gtest/gtest.h>
#include <platform/linux/LinuxPlatform.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>
#include <sys/stat.h>

#include <algorithm>

#include "platform/linux_support.h"
#include "story/FaultProxy.h"

namespace kva::story {
namespace {

using sandbox::kApplicationId;
using sandbox::kInterstitialAdUnit;

/// Everything that was said: the bytes of every request, the lines of the log.
struct Ear : StandardOutput {
  void print(std::string_view text) override {
    lines.with([&](auto& all) { all.emplace_back(text); });
  }
  void hear(const std::string& request) {
    requests.with([&](auto& all) { all.push_back(request); });
  }
  Guarded<std::vector<std::string>> lines, requests;
};

/// Fetches the template of the ad that it receives.
struct Fetcher : AdLoaderDelegate {
  void adLoaderDidReceiveAd(AdLoader& loader) override {
    TemplateManager::shared().templateFor(loader.adData()->templateId,
                                          [this](auto found) { hasTemplate = found.has_value(); });
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error&) override {}
  std::atomic<bool> hasTemplate = false;
};

class Privacy : public testing::Test {
 protected:
  Privacy() : server({.periods = {.betweenUploads = 0}}), ear(std::make_shared<Ear>()) {}
  void SetUp() override {
    ASSERT_TRUE(server.start());
    proxy = std::make_unique<FaultProxy>(server.port(), [this](auto, const std::string& request) {
      ear->hear(request);
      return Fault::none;
    });
  }

  void launch(const std::string& appVersion) {
    runtime = nullptr;
    LinuxOptions options;
    options.bundleId = "org.kelvara.privacy";
    options.appVersion = appVersion;
    options.userDefaults = folder.path / "home" / "defaults.sqlite";
    options.apiBases = {.production = proxy->origin() + "/api/v1",
                        .sandbox = proxy->origin() + "/api/v1"};
    options.reachability = ReachabilityPolicy::assumeReachable;
    options.advertisingIdentifier = sandbox::kTesterIDFA;
    options.trackingAuthorized = true;
    Platform ports = makeLinuxPlatform(options).ports;
    ports.standardOutput = ear;
    runtime = std::make_unique<Runtime>(std::move(ports));
    Log::shared().setLogLevel(LogLevel::d);
  }

  /// From the start to an uploaded report, an ad lost, and a user whom the server does not know.
  void liveOn() {
    std::atomic<bool> isStarted = false;
    Kelvara::start(std::string(kApplicationId), [&](auto error) { isStarted = !error; });
    ASSERT_TRUE(test::spinMainLoopUntil([&] { return isStarted.load(); }));
    KVABidLoader::sendBidLost(bid(), 9.5);
    const auto won = bid();
    const auto fetcher = std::make_shared<Fetcher>();
    auto loader = AdLoader::create();
    loader->setDelegate(fetcher);
    loader->load(won, 1.5);
    ASSERT_TRUE(test::spinMainLoopUntil([&] { return fetcher->hasTemplate.load(); }));
    server.setScenario("/bid/stats",
                       {.behaviour = sandbox::Behaviour::serverError, .times = 1, .code = 404});
    const auto registrations = server.exchanges("/register").size();
    ASSERT_TRUE(test::spinMainLoopUntil([&] {
      ReportManager::shared().trackAction(won->bidId(), {BidReportAction::impression});
      const auto state = server.state();
      return state.report(won->bidId()) && server.exchanges("/register").size() > registrations;
    }));
  }
  std::shared_ptr<KVABidResponse> bid() {
    Guarded<std::shared_ptr<KVABidResponse>> answer;
    KVABidLoader::loadBid(std::string(kInterstitialAdUnit), KVABidType::interstitial,
                          [&](auto won, auto) { answer.set(won); });
    EXPECT_TRUE(test::spinMainLoopUntil([&] { return answer.get() != nullptr; }));
    return answer.get();
  }

  /// In how many requests the identifier, or what gives it away, was said; likewise log lines.
  static std::size_t count(const Guarded<std::vector<std::string>>& said) {
    const std::string identifier(sandbox::kTesterIDFA);
    std::string lower = identifier;
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::string digest(sandbox::kTesterDigest);
    return static_cast<std::size_t>(std::ranges::count_if(said.get(), [&](const std::string& text) {
      return text.contains(identifier) || text.contains(lower) || text.contains(digest) ||
             text.contains(md5Value(lower));
    }));
  }
  void forget() {
    ear->requests.set({});
    ear->lines.set({});
  }

  test::TemporaryFolder folder;
  sandbox::Server server;
  std::shared_ptr<Ear> ear;
  std::unique_ptr<FaultProxy> proxy;
  std::unique_ptr<Runtime> runtime;
};

TEST_F(Privacy, WithoutConsentTheIdentifierIsInNoRequestAndNoLogLine) {
  launch("1.0");
  liveOn();
  launch("2.0");  // sends an update
  Kelvara::setUserConsent(false);
  liveOn();
  std::set<std::string> endpoints;
  for (const auto& exchange : server.exchanges()) endpoints.insert(exchange.endpoint);
  EXPECT_EQ(endpoints.size(), 9u) << "not every kind of request was made";
  EXPECT_EQ(count(ear->requests), 0u);
  EXPECT_EQ(count(ear->lines), 0u);

  launch("3.0");
  Kelvara::setUserConsent(true);
  liveOn();
  EXPECT_GT(count(ear->requests), 0u) << "this would not have noticed";

  forget();
  Kelvara::setUserConsent(false);
  const auto won = bid();
  ASSERT_TRUE(test::spinMainLoopUntil([&] {
    // Again and again, because what is tracked during an upload goes with the next.
    ReportManager::shared().trackAction(won->bidId(), {BidReportAction::click});
    const auto state = server.state();
    return state.report(won->bidId()) != nullptr;
  }));
  launch("4.0");
  Kelvara::setUserConsent(false);
  liveOn();
  EXPECT_EQ(count(ear->requests), 0u) << "sent after consent was taken back";
  EXPECT_EQ(count(ear->lines), 0u);
}

TEST_F(Privacy, WhatIsStoredIsItsOwnersAlone) {
  const mode_t before = umask(0);
  launch("1.0");
  liveOn();
  umask(before);
  std::set<std::string> found;
  for (const auto& file : std::filesystem::directory_iterator(folder.path / "home")) {
    using std::filesystem::perms;
    found.insert(file.path().filename());
    EXPECT_EQ(file.status().permissions(), perms::owner_read | perms::owner_write) << file.path();
  }
  EXPECT_EQ(found, (std::set<std::string>{"defaults.sqlite", "defaults.sqlite-shm",
                                          "defaults.sqlite-wal"}));
}

TEST(SandboxServer, IsHeardOnLoopbackAloneUnlessToldOtherwise) {
  const auto reaches = [](int port) {
    const test::LoopbackSocket client;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.2", &address.sin_addr);  // not the address that it is given
    return connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  };
  sandbox::Server usual, told({.listen = "0.0.0.0"});
  ASSERT_TRUE(usual.start());
  ASSERT_TRUE(told.start());
  EXPECT_FALSE(reaches(usual.port()));
  EXPECT_TRUE(reaches(told.port()));
}

}  // namespace
}  // namespace kva::story
