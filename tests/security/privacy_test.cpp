// Which data leaves the device, and who can read the stored data.
#include <sys/stat.h>

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

namespace kva::story {
namespace {

using test::spinUntil;

/// Records texts, and finds the advertising identifier or its digest in them.
struct Records {
  void add(std::string_view text) {
    texts.with([&](std::string& all) { all.append(text) += '\n'; });
  }
  bool haveTheIdentifier() const {
    const std::string identifier = lowercased(sandbox::kTesterIDFA);
    const std::string all = lowercased(texts.get());
    return all.contains(identifier) || all.contains(md5Value(identifier)) ||
           all.contains(sandbox::kTesterDigest);
  }
  Guarded<std::string> texts;
};

struct RecordedLog : LogOutput, Records {
  void print(LogLevel, std::string_view text) override { add(text); }
};

/// Records every request before it sends it.
struct RecordedSession : URLSession, Records {
  explicit RecordedSession(std::shared_ptr<URLSession> real) : session(std::move(real)) {}
  void send(URLRequest request, Done done) override {
    add(request.url.absoluteString());
    for (const auto& [name, value] : request.headers) add(name + ": " + value);
    if (request.body) add(asText(*request.body));
    session->send(std::move(request), std::move(done));
  }
  void invalidate() override { session->invalidate(); }
  const std::shared_ptr<URLSession> session;
};

class Privacy : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }

  void launch(const std::string& appVersion) {
    runtime = nullptr;
    LinuxOptions options;
    options.appVersion = appVersion;
    options.userDefaults = folder.path / "home" / "defaults.sqlite";
    options.apiBases = {.production = server.baseURL(), .sandbox = server.baseURL()};
    options.reachability = ReachabilityPolicy::assumeReachable;
    options.advertisingIdentifier = sandbox::kTesterIDFA;
    options.trackingAuthorized = true;
    Platform ports = makeLinuxPlatform(options).ports;
    ports.logOutput = log = std::make_shared<RecordedLog>();
    ports.urlSession = wire = std::make_shared<RecordedSession>(ports.urlSession);
    runtime = std::make_unique<Runtime>(std::move(ports));
    Log::shared().setLogLevel(LogLevel::d);
  }

  /// Makes every kind of request; the server forgets the user in between.
  void liveOn() {
    std::atomic<int> answers = 0;
    const auto count = [&](const auto& result) { answers += result.has_value(); };
    Kelvara::start(std::string(sandbox::kApplicationId),
                   [&](const auto& error) { answers += !error; });
    ASSERT_TRUE(spinUntil([&] { return answers == 1; }));
    KVABidLoader::sendBidLost(bid(), 9.5);
    const auto won = bid();
    RequestManager::loadAd(std::string(sandbox::kApplicationId), *won, 1.5, count);
    TemplateManager::shared().templateFor(std::string(sandbox::kImageTemplate), count);
    ASSERT_TRUE(spinUntil([&] { return answers == 3; }));
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
    EXPECT_TRUE(spinUntil([&] { return answer.get() != nullptr; }));
    return answer.get();
  }
  /// Repeats the action: one that is tracked during an upload waits for the next upload.
  void report(const std::shared_ptr<KVABidResponse>& bid) {
    EXPECT_TRUE(spinUntil([&] {
      ReportManager::shared().trackAction(bid->bidId(), {BidReportAction::impression});
      const auto state = server.state();
      return state.report(bid->bidId()) != nullptr;
    }));
  }

  test::TemporaryFolder folder;
  sandbox::Server server{{.periods = {.betweenUploads = 0}}};
  std::shared_ptr<RecordedSession> wire;  ///< of this launch
  std::shared_ptr<RecordedLog> log;       ///< of this launch
  std::unique_ptr<Runtime> runtime;
};

TEST_F(Privacy, WithoutConsentTheIdentifierIsInNoRequestAndNoLogLine) {
  const auto expectNoIdentifier = [this](const char* when) {
    EXPECT_FALSE(wire->haveTheIdentifier()) << when;
    EXPECT_FALSE(log->haveTheIdentifier()) << when;
  };
  launch("1.0");
  liveOn();
  expectNoIdentifier("before any consent");
  launch("2.0");  // sends an update
  Kelvara::setUserConsent(false);
  liveOn();
  expectNoIdentifier("consent refused");
  std::set<std::string> endpoints;
  for (const auto& exchange : server.exchanges()) endpoints.insert(exchange.endpoint);
  EXPECT_EQ(endpoints.size(), 9u) << "not every kind of request was made";

  launch("3.0");
  Kelvara::setUserConsent(true);
  liveOn();
  EXPECT_TRUE(wire->haveTheIdentifier()) << "the test would miss a leak";
  wire->texts.set({});
  log->texts.set({});
  Kelvara::setUserConsent(false);
  report(bid());
  expectNoIdentifier("consent withdrawn");
  launch("4.0");
  Kelvara::setUserConsent(false);
  liveOn();
  expectNoIdentifier("the launch after");
}

TEST_F(Privacy, OnlyTheOwnerCanReadTheStore) {
  using std::filesystem::perms;
  const mode_t before = umask(0);
  launch("1.0");
  liveOn();
  runtime = nullptr;
  for (const auto& file : std::filesystem::directory_iterator(folder.path / "home"))
    permissions(file, perms{0644});  // another program may have changed them
  launch("2.0");
  liveOn();
  umask(before);
  EXPECT_EQ(status(folder.path / "home").permissions(), perms::owner_all);
  int files = 0;
  for (const auto& file : std::filesystem::directory_iterator(folder.path / "home")) {
    EXPECT_EQ(file.status().permissions(), perms::owner_read | perms::owner_write) << file.path();
    ++files;
  }
  EXPECT_EQ(files, 4) << "database, log, the log's index, claims";
}

TEST(SandboxServer, ListensOnLoopbackAloneByDefault) {
  for (const sandbox::Options& options : {sandbox::Options(), {.listen = "0.0.0.0"}}) {
    sandbox::Server server(options);
    ASSERT_TRUE(server.start());
    const test::LoopbackSocket client;
    auto other = client.address;
    other.sin_port = htons(static_cast<std::uint16_t>(server.port()));
    inet_pton(AF_INET, "127.0.0.2", &other.sin_addr);
    EXPECT_EQ(connect(client.fd, reinterpret_cast<sockaddr*>(&other), sizeof other) == 0,
              options.listen == "0.0.0.0")
        << options.listen;
  }
}

}  // namespace
}  // namespace kva::story
