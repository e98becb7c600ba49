// What a host may and may not do with the SDK's front door.
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

#include <filesystem>
#include <thread>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <gmock/gmock.h>
#include "gtk/Stage.h"

namespace kva::gtk::test {
namespace {

HostOptions options() {
  HostOptions made;
  made.bundleId = "com.example.host";
  made.mainBundle = std::filesystem::path(KELVARA_RESOURCES).parent_path();
  made.userDefaults = std::filesystem::path(testing::TempDir()) / "kelvara-host.sqlite";
  return made;
}

TEST(Host, TakesWhatIsOnShowAwayAndLeavesTheWindowToItsOwner) {
  struct Listener : ViewControllerDelegate {
    int tornDown = 0;
    void viewControllerWasTornDown() override {
      ++tornDown;
      Kelvara::isInitialized();  // there still is an SDK to ask
    }
  };
  auto listener = std::make_shared<Listener>();
  auto* window = GTK_WINDOW(gtk_window_new());
  auto* entry = gtk_entry_new();
  gtk_window_set_child(window, entry);
  gtk_window_present(window);
  gtk_widget_grab_focus(entry);
  auto* focus = gtk_window_get_focus(window);
  {
    Host host(options());
    auto controller = Runtime::current().platform().application->makeViewController();
    controller->setDelegate(listener);
    bool presented = false;
    host.viewController(window)->present(controller, [&] { presented = true; });
    ASSERT_TRUE(spinUntil([&] { return presented; }));
    EXPECT_FALSE(gtk_widget_get_child_visible(entry));
  }
  EXPECT_EQ(listener->tornDown, 1);
  EXPECT_TRUE(gtk_widget_get_child_visible(entry));
  EXPECT_EQ(gtk_window_get_focus(window), focus);
  EXPECT_EQ(gtk_widget_get_next_sibling(entry), nullptr);
  drawFrame(window);
  gtk_window_destroy(window);
}

TEST(Host, LogsToItsSinkWhatItsLevelAllows) {
  using enum gtk::LogLevel;
  struct Case {
    gtk::LogLevel level;
    std::vector<std::pair<gtk::LogLevel, std::string>> lines;
    bool logsForATestDevice;
  };
  const std::pair error_{error, "<KVA> [E]: e"}, info_{info, "<KVA> [I]: i"};
  const Case cases[] = {{none, {}, false},
                        {error, {error_}, true},
                        {info, {error_, info_}, true},
                        {debug, {error_, info_, {debug, "<KVA> [D]: d"}}, true}};
  for (const auto& one : cases) {
    std::vector<std::pair<gtk::LogLevel, std::string>> lines;
    auto with = options();
    with.logLevel = one.level;
    with.logSink = [&](gtk::LogLevel level, const std::string& line) {
      lines.emplace_back(level, line);
    };
    Host host(with);
    Log::e("e");
    Log::i("i");
    Log::d("d");
    EXPECT_THAT(lines, testing::ElementsAreArray(one.lines)) << static_cast<int>(one.level);
    lines.clear();
    Log::shared().setLogLevel(kva::LogLevel::d);
    Log::d("d");
    EXPECT_EQ(!lines.empty(), one.logsForATestDevice) << static_cast<int>(one.level);
  }
}

TEST(HostDeathTest, SaysWhatIsWrong) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(Kelvara::isInitialized(), "make a kva::gtk::Host");
  EXPECT_DEATH(
      {
        gtk_init();
        Host first(options());
        Host second(options());
      },
      "there is a runtime already");
  EXPECT_DEATH(std::thread([] { Host host(options()); }).join(),
               "a kva::gtk::Host belongs on the main thread");
  const auto endIn = [](auto call) {
    gtk_init();
    static std::unique_ptr<Host> host;
    auto hostOptions = options();
    hostOptions.openURL = [](const std::string&) { host.reset(); };
    host = std::make_unique<Host>(hostOptions);
    call(host);
  };
  EXPECT_DEATH(endIn([](auto& host) { std::thread([&] { host.reset(); }).join(); }),
               "the end of a kva::gtk::Host belongs on the main thread");
  const char* inCallback = "destroyed in a callback";
  EXPECT_DEATH(endIn([](auto& host) {
                 Kelvara::start("no UUID", [&](std::optional<Error>) { host.reset(); });
               }),
               inCallback);
  EXPECT_DEATH(endIn([](auto& host) {
                 KVABidLoader::loadBid("no UUID", KVABidType::interstitial,
                                       [&](auto, auto) { host.reset(); });
               }),
               inCallback);
  EXPECT_DEATH(endIn([](auto&) {
                 Runtime::current().platform().application->openURL(
                     URL::parse("https://example.org").value());
               }),
               inCallback);
  struct Ends : KVAInterstitialDelegate {
    std::unique_ptr<Host>* host = nullptr;
    void interstitialDidFailToPresent(KVAInterstital&, const Error&) override { host->reset(); }
  };
  EXPECT_DEATH(endIn([](auto& host) {
                 auto delegate = std::make_shared<Ends>();
                 delegate->host = &host;
                 auto ad = KVAInterstital::create();
                 ad->setDelegate(delegate);
                 ad->showAdFrom(host->viewController(GTK_WINDOW(gtk_window_new())));
               }),
               inCallback);
}

}  // namespace
}  // namespace kva::gtk::test
