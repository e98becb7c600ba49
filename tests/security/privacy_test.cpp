// What leaves the device, and who can read what stays on it.
#include <sys/stat.h>

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <platform/linux/LinuxPlatform.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include "platform/linux_support.h"
#include "story/FaultProxy.h"

namespace kva::story {
namespace {

using test::spinMainLoopUntil;

/// Keeps what is said, and knows the identifier and what gives it away.
struct Ear : LogOutput {
  void print(LogLevel, std::string_view text) override { hear(text); }
  void hear(std::string_view text) {
    said.with([&](auto& all) { all.emplace_back(text); });
  }
  bool hasHeardTheIdentifier() const {
    std::string lower(sandbox::kTesterIDFA);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return std::ranges::any_of(said.get(), [&](const std::string& text) {
      return text.contains(sandbox::kTesterIDFA) || text.contains(sandbox::kTesterDigest) ||
             text.contains(lower) || text.contains(md5Value(lower));
    });
  }
  Guarded<std::vector<std::string>> said;
};

class Privacy : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    proxy = std::make_unique<FaultProxy>(server.port(), [this](auto, const std::string& request) {
      wire.hear(request);
      return Fault::none;
    });
  }

  void launch(const std::string& appVersion) {
    runtime = nullptr;
    LinuxOptions options;
    options.appVersion = appVersion;
    options.userDefaults = folder.path / "home" / "defaults.sqlite";
    options.apiBases = {.production = proxy->apiBase(), .sandbox = proxy->apiBase()};
    options.reachability = ReachabilityPolicy::assumeReachable;
    options.advertisingIdentifier = sandbox::kTesterIDFA;
    options.trackingAuthorized = true;
    Platform ports = makeLinuxPlatform(options).ports;
    ports.logOutput = log;
    runtime = std::make_unique<Runtime>(std::move(ports));
    Log::shared().setLogLevel(LogLevel::d);
  }

  /// From the start to an uploaded report, a bid lost, and a user whom the server does not know.
  void liveOn() {
    std::atomic<int> answers = 0;
    const auto count = [&](const auto& result) { answers += result.has_value(); };
    Kelvara::start(std::string(sandbox::kApplicationId),
                   [&](const auto& error) { answers += !error; });
    ASSERT_TRUE(spinMainLoopUntil([&] { return answers == 1; }));
    KVABidLoader::sendBidLost(bid(), 9.5);
    const auto won = bid();
    RequestManager::loadAd(std::string(sandbox::kApplicationId), *won, 1.5, count);
    TemplateManager::shared().templateFor(std::string(sandbox::kImageTemplate), count);
    ASSERT_TRUE(spinMainLoopUntil([&] { return answers == 3; }));
    server.setScenario("/bid/stats",
                       {.behaviour = sandbox::Behaviour::serverError, .times = 1, .code = 404});
    const auto registrations = server.exchanges("/register").size();
    report(won);
    EXPECT_GT(server.exchanges("/register").size(), registrations);
  }
  std::shared_ptr<KVABidResponse> bid() {
    Guarded<std::shared_ptr<KVABidResponse>> answer;
    KVABidLoader::loadBid(std::string(sandbox::kInterstitialAdUnit), KVABidType::interstitial,
                          [&](auto won, auto) { answer.set(won); });
    EXPECT_TRUE(spinMainLoopUntil([&] { return answer.get() != nullptr; }));
    return answer.get();
  }
  /// Again and again, because what is tracked during an upload goes with the next.
  void report(const std::shared_ptr<KVABidResponse>& bid) {
    EXPECT_TRUE(spinMainLoopUntil([&] {
      ReportManager::shared().trackAction(bid->bidId(), {BidReportAction::impression});
      const auto state = server.state();
      return state.report(bid->bidId()) != nullptr;
    }));
  }

  test::TemporaryFolder folder;
  sandbox::Server server{{.periods = {.betweenUploads = 0}}};
  Ear wire;
  std::shared_ptr<Ear> log = std::make_shared<Ear>();
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
  EXPECT_FALSE(wire.hasHeardTheIdentifier());
  EXPECT_FALSE(log->hasHeardTheIdentifier());

  launch("3.0");
  Kelvara::setUserConsent(true);
  liveOn();
  EXPECT_TRUE(wire.hasHeardTheIdentifier()) << "this would not have noticed";

  wire.said.set({});
  log->said.set({});
  Kelvara::setUserConsent(false);
  report(bid());
  launch("4.0");
  Kelvara::setUserConsent(false);
  liveOn();
  EXPECT_FALSE(wire.hasHeardTheIdentifier()) << "sent after consent was taken back";
  EXPECT_FALSE(log->hasHeardTheIdentifier());
}

TEST_F(Privacy, WhatIsStoredIsItsOwnersAlone) {
  using std::filesystem::perms;
  const mode_t before = umask(0);
  launch("1.0");
  liveOn();
  runtime = nullptr;
  for (const auto& file : std::filesystem::directory_iterator(folder.path / "home"))
    permissions(file, perms{0644});  // as something else may have left them
  launch("2.0");
  liveOn();
  umask(before);
  EXPECT_EQ(status(folder.path / "home").permissions(), perms::owner_all);
  int files = 0;
  for (const auto& file : std::filesystem::directory_iterator(folder.path / "home")) {
    EXPECT_EQ(file.status().permissions(), perms::owner_read | perms::owner_write) << file.path();
    ++files;
  }
  EXPECT_EQ(files, 4) << "the database, its log, that log's index and the file of claims";
}

TEST(SandboxServer, IsHeardOnLoopbackAloneUnlessToldOtherwise) {
  const auto reaches = [](int port) {
    test::LoopbackSocket client;
    client.address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.2", &client.address.sin_addr);  // not the one that it is given
    return connect(client.fd, reinterpret_cast<sockaddr*>(&client.address),
                   sizeof client.address) == 0;
  };
  sandbox::Server usual, told({.listen = "0.0.0.0"});
  ASSERT_TRUE(usual.start());
  ASSERT_TRUE(told.start());
  EXPECT_FALSE(reaches(usual.port()));
  EXPECT_TRUE(reaches(told.port()));
}

}  // namespace
}  // namespace kva::story
