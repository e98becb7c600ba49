#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

#include <thread>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include "gtk/Stage.h"
#include "support/AdRecorder.h"

namespace kva::gtk::test {
namespace {

HostOptions options() {
  HostOptions made;
  made.bundleId = "com.example.host";
  made.mainBundle = std::filesystem::path(KELVARA_RESOURCES).parent_path();
  made.userDefaults = std::filesystem::path(testing::TempDir()) / "kelvara-host.sqlite";
  return made;
}

TEST(Host, LogsToItsSinkWhatItsLevelAllows) {
  using Level = gtk::LogLevel;
  const std::vector<std::string> all = {"<KVA> [E]: e", "<KVA> [I]: i", "<KVA> [D]: d"};
  for (const auto level : {Level::none, Level::error, Level::info, Level::debug}) {
    SCOPED_TRACE(static_cast<int>(level));
    std::vector<std::string> lines;
    auto with = options();
    with.logLevel = level;
    with.logSink = [&](Level lineLevel, const std::string& line) {
      EXPECT_EQ(" EID"[static_cast<int>(lineLevel)], line[7]);
      lines.push_back(line);
    };
    Host host(with);
    Log::e("e");
    Log::i("i");
    Log::d("d");
    EXPECT_THAT(lines,
                testing::ElementsAreArray(all.begin(), all.begin() + static_cast<int>(level)));
    lines.clear();
    Log::shared().setLogLevel(kva::LogLevel::d);  // as for a test device
    Log::d("d");
    EXPECT_EQ(lines.empty(), level == Level::none);
  }
}

TEST(HostDeathTest, AbortsAtMisuse) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  using HostPtr = std::unique_ptr<Host>;
  const char* inCallback = "destroyed in a callback";
  const std::pair<const char*, std::function<void(HostPtr&)>> cases[] = {
      {"make a kva::gtk::Host", [](HostPtr& host) { host.reset(), Kelvara::isInitialized(); }},
      {"there is a runtime already", [](HostPtr&) { Host second(options()); }},
      {"a kva::gtk::Host belongs on the main thread",
       [](HostPtr& host) { host.reset(), std::thread([] { Host other(options()); }).join(); }},
      {"the end of a kva::gtk::Host belongs on the main thread",
       [](HostPtr& host) { std::thread([&] { host.reset(); }).join(); }},
      {inCallback, [](HostPtr& host) { Kelvara::start("no UUID", [&](auto) { host.reset(); }); }},
      {inCallback,
       [](HostPtr& host) {
         KVABidLoader::loadBid("no UUID", KVABidType::interstitial,
                               [&](auto, auto) { host.reset(); });
       }},
      {inCallback,
       [](HostPtr&) {
         Runtime::current().platform().application->openURL(*URL::parse("https://example.org"));
       }},
      {inCallback,
       [](HostPtr& host) {
         auto delegate = std::make_shared<kva::test::AdRecorder>();
         delegate->onEvent = [&] { host.reset(); };
         auto ad = KVAInterstital::create();
         ad->setDelegate(delegate);
         ad->showAdFrom(host->viewController(GTK_WINDOW(gtk_window_new())));
       }},
  };
  for (const auto& [message, misuse] : cases) {
    EXPECT_DEATH(
        {
          static HostPtr host;
          auto hostOptions = options();
          hostOptions.openURL = [](const std::string&) { host.reset(); };
          host = std::make_unique<Host>(hostOptions);
          misuse(host);
        },
        message);
  }
}

}  // namespace
}  // namespace kva::gtk::test
