// The platform as a whole, and the facts of the host and the machine.
#include <platform/linux/LinuxPlatform.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <platform/linux/HostFacts.h>
#include <platform/linux/TimerQueue.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

namespace fs = std::filesystem;

/// The names of this process's threads, without GLib's own, which stay.
std::multiset<std::string> threadsOfTheSdk() {
  std::multiset<std::string> names;
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name.starts_with("kva-") || name.starts_with("org.")) names.insert(name);
  }
  return names;
}

/// Environment variables, put back at the end.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::map<std::string, const char*>& values) {
    for (const auto& [name, value] : values) {
      const char* before = std::getenv(name.c_str());
      before_[name] = before ? std::optional<std::string>(before) : std::nullopt;
      value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
    }
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : before_)
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

TEST(LinuxPlatform, StandsWithoutAMainLoopAndLeavesNoThread) {
  TemporaryFolder folder;
  const ScopedEnvironment environment({{"XDG_DATA_HOME", nullptr}});
  const auto before = threadsOfTheSdk();
  for (int life = 0; life < 3; ++life) {
    auto platform = makeLinuxPlatform({.bundleId = "org.example.app",
                                       .appVersion = "2.1",
                                       .mainBundle = {},
                                       .userDefaults = folder.path / "defaults.sqlite",
                                       .apiBases = {"https://a.example/api/v1", ""},
                                       .advertisingIdentifier = {}});
    auto& ports = platform.ports;
    EXPECT_GT(threadsOfTheSdk().size(), before.size());
    EXPECT_EQ(ports.userDefaults->get<std::int64_t>("life").value_or(0), life);
    ports.userDefaults->set("life", std::int64_t{life + 1});
    EXPECT_EQ(ports.mainBundle->path(), fs::read_symlink("/proc/self/exe").parent_path());
    EXPECT_EQ(ports.mainBundle->bundleIdentifier(), "org.example.app");
    EXPECT_EQ(ports.mainBundle->infoString("CFBundleShortVersionString"), "2.1");
    EXPECT_FALSE(ports.mainBundle->infoString("CFBundleName"));
    EXPECT_EQ(ports.apiBases.production, "https://a.example/api/v1");
    EXPECT_FALSE(ports.application);
    EXPECT_EQ(ports.device, platform.device);
    EXPECT_FALSE(ports.device->machine().empty());
    EXPECT_FALSE(ports.device->systemVersion().empty());

    std::atomic<bool> answered{false};
    auto timer = ports.runLoop->schedule(0.01, Repeats::yes, [] {});
    ports.mainQueue->async([] { ADD_FAILURE() << "there is no loop that could run this"; });
    ports.urlSession->send({.url = refusingUrl(), .headers = {}, .body = {}},
                           [&](URLSession::Outcome) { answered = true; });
    platform = {};
    EXPECT_TRUE(answered);
    EXPECT_EQ(threadsOfTheSdk(), before);
  }
}

TEST(LinuxPlatform, ATimerDroppedOnAnotherThreadDoesNotBegin) {
  // The loop's thread and the dropping thread race for the same instant.
  TimerQueue timers([] {});
  std::atomic<bool> over{false};
  std::jthread loop([&] {
    while (!over) timers.fireDue();
  });
  for (int i = 0; i < 200; ++i) {
    auto dropped = std::make_shared<std::atomic<bool>>(false);
    auto late = std::make_shared<std::atomic<int>>(0);
    auto timer = timers.schedule(0.001, Repeats::yes, [=] {
      if (*dropped) ++*late;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(900 + i));
    timer.invalidate();
    *dropped = true;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
    EXPECT_LE(*late, 1) << "one that was running may end, none may begin";
  }
  over = true;
}

TEST(LinuxPlatform, ReadsTheLanguagesOfTheEnvironment) {
  const struct {
    const char *language, *all, *messages, *lang;
    std::vector<std::string> preferred;
    std::optional<std::string> code, country;
  } cases[] = {
      {nullptr, nullptr, nullptr, "en_US.UTF-8", {"en-US", "en"}, "en", "US"},
      {nullptr, nullptr, "tr_TR.UTF-8", "en_US.UTF-8", {"tr-TR", "tr"}, "tr", "TR"},
      {nullptr, "de_AT@euro", "tr_TR", "en_US", {"de-AT", "de"}, "de", "AT"},
      {"fr_CA:de", nullptr, nullptr, "tr_TR.UTF-8", {"fr-CA", "fr", "de"}, "tr", "TR"},
      {nullptr, nullptr, nullptr, "eo", {"eo"}, "eo", std::nullopt},
      {nullptr, nullptr, nullptr, "C.UTF-8", {"en"}, std::nullopt, std::nullopt},
      {nullptr, nullptr, nullptr, nullptr, {"en"}, std::nullopt, std::nullopt},
      {nullptr, "POSIX", nullptr, "en_US", {"en"}, std::nullopt, std::nullopt},
  };
  for (const auto& one : cases) {
    const ScopedEnvironment environment({{"LANGUAGE", one.language},
                                         {"LC_ALL", one.all},
                                         {"LC_MESSAGES", one.messages},
                                         {"LANG", one.lang}});
    const LinuxLocale locale;
    const std::string what = one.preferred.front() + " " + one.code.value_or("-");
    EXPECT_EQ(locale.preferredLanguages(), one.preferred) << what;
    EXPECT_EQ(locale.languageCode(), one.code) << what;
    EXPECT_EQ(locale.countryCode(), one.country) << what;
  }
}

TEST(LinuxPlatform, HandsOutAnIdentifierOnlyIfItIsOne) {
  constexpr const char* kWithheld = "00000000-0000-0000-0000-000000000000";
  const std::pair<const char*, const char*> cases[] = {
      {"", kWithheld},
      {"not an identifier", kWithheld},
      {"6d92078a-8246-4ba4-ae5b-76104861e7dc", "6D92078A-8246-4BA4-AE5B-76104861E7DC"},
  };
  for (const auto& [given, expected] : cases)
    EXPECT_EQ(HostIdentifiers(given, false).advertisingIdentifier(), expected);
  using Status = IdentifierManager::AuthorizationStatus;
  EXPECT_EQ(HostIdentifiers("", true).trackingAuthorizationStatus(), Status::authorized);
  EXPECT_NE(HostIdentifiers("", false).trackingAuthorizationStatus(), Status::authorized);
}

TEST(LinuxPlatform, LinesOfManyThreadsStayWhole) {
  TemporaryFolder folder;
  const auto file = folder.path / "out";
  std::fflush(stdout);
  const int before = dup(STDOUT_FILENO);
  const int out = open(file.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  dup2(out, STDOUT_FILENO);
  {
    ProcessOutput output;
    std::vector<std::jthread> threads;
    for (const char letter : {'a', 'b', 'c'})
      threads.emplace_back([&output, letter] {
        for (int i = 0; i < 200; ++i) output.print(std::string(500, letter));
      });
  }
  dup2(before, STDOUT_FILENO);
  close(out);
  close(before);
  int count = 0;
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line); ++count)
    ASSERT_EQ(line, std::string(500, line.front()));
  EXPECT_EQ(count, 600);
}

}  // namespace
}  // namespace kva::test
