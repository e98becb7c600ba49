// Which data leaves the device, and who can read the stored data.
#include <sys/stat.h>

#include <set>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <platform/headless/Device.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include "platform/linux_support.h"

namespace kva::story {
namespace {

using test::spinUntil;

/// Finds the advertising identifier or its digest.
bool haveTheIdentifier(const std::vector<std::string>& texts) {
  const std::string lower = lowercased(sandbox::kTesterIDFA);
  return std::ranges::any_of(texts, [&](const std::string& text) {
    return text.contains(sandbox::kTesterIDFA) || text.contains(sandbox::kTesterDigest) ||
           text.contains(lower) || text.contains(md5Value(lower));
  });
}

/// Records every request before it sends it.
struct RecordedSession : URLSession {
  explicit RecordedSession(std::shared_ptr<URLSession> real) : session(std::move(real)) {}
  void send(URLRequest request, Done done) override {
    texts.with([&](auto& all) {
      all.push_back(request.url.absoluteString());
      for (const auto& [name, value] : request.headers) all.push_back(name + ": " + value);
      if (request.body) all.emplace_back(asText(*request.body));
    });
    session->send(std::move(request), std::move(done));
  }
  void invalidate() override { session->invalidate(); }
  const std::shared_ptr<URLSession> session;
  Guarded<std::vector<std::string>> texts;
};

class Privacy : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()); }

  void launch(const std::string& appVersion) {
    runtime = nullptr;
    auto options = test::hostOptions(home, server.baseURL());
    options.appVersion = appVersion;
    options.reachability = ReachabilityPolicy::assumeReachable;
    options.advertisingIdentifier = sandbox::kTesterIDFA;
    options.trackingAuthorized = true;
    Platform ports = makeLinuxPlatform(options).ports;
    ports.logOutput = log = std::make_shared<headless::HeadlessOutput>();
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
  const std::filesystem::path home = folder.path / "home";
  sandbox::Server server{{.periods = {.betweenUploads = 0}}};
  std::shared_ptr<RecordedSession> wire;
  std::shared_ptr<headless::HeadlessOutput> log;
  std::unique_ptr<Runtime> runtime;
};

TEST_F(Privacy, WithoutConsentTheIdentifierIsInNoRequestAndNoLogLineAndOnlyTheOwnerReadsTheStore) {
  using std::filesystem::perms;
  const mode_t before = umask(0);
  const auto expectNoIdentifier = [this](const char* when) {
    EXPECT_FALSE(haveTheIdentifier(wire->texts.get())) << when;
    EXPECT_FALSE(haveTheIdentifier(log->lines())) << when;
  };
  launch("1.0");
  liveOn();
  expectNoIdentifier("before any consent");
  runtime = nullptr;
  for (const auto& file : std::filesystem::directory_iterator(home))
    permissions(file, perms{0644});  // another program may have changed them
  launch("2.0");                     // sends an update
  Kelvara::setUserConsent(false);
  liveOn();
  expectNoIdentifier("consent refused");
  std::set<std::string> endpoints;
  for (const auto& exchange : server.exchanges()) endpoints.insert(exchange.endpoint);
  EXPECT_EQ(endpoints.size(), 9u) << "not every kind of request was made";

  launch("3.0");
  Kelvara::setUserConsent(true);
  liveOn();
  EXPECT_TRUE(haveTheIdentifier(wire->texts.get())) << "the test would miss a leak";
  wire->texts.set({});
  log->clear();
  Kelvara::setUserConsent(false);
  report(bid());
  expectNoIdentifier("consent withdrawn");
  launch("4.0");
  Kelvara::setUserConsent(false);
  liveOn();
  expectNoIdentifier("the launch after");

  umask(before);
  EXPECT_EQ(status(home).permissions(), perms::owner_all);
  int files = 0;
  for (const auto& file : std::filesystem::directory_iterator(home)) {
    EXPECT_EQ(file.status().permissions(), perms::owner_read | perms::owner_write) << file.path();
    ++files;
  }
  EXPECT_EQ(files, 4) << "database, log, the log's index, claims";
}

TEST(SandboxServer, ListensOnLoopbackAloneByDefault) {
  for (const sandbox::Options& options : {sandbox::Options(), {.listen = "0.0.0.0"}}) {
    sandbox::Server server(options);
    ASSERT_TRUE(server.start());
    httplib::Client client("127.0.0.2", server.port());
    EXPECT_EQ(client.Get("/").error() == httplib::Error::Success, options.listen == "0.0.0.0")
        << options.listen;
  }
}

}  // namespace
}  // namespace kva::story
