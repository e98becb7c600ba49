// The platform as a whole, and the facts of the host and the machine.
#include <platform/linux/LinuxPlatform.h>

#include <atomic>
#include <fstream>
#include <set>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <platform/linux/HostFacts.h>
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

TEST(LinuxPlatform, StandsWithoutAMainLoopAndLeavesNoThread) {
  TemporaryFolder folder;
  const auto before = threadsOfTheSdk();
  for (int life = 0; life < 2; ++life) {
    auto platform = makeLinuxPlatform({.bundleId = "org.example.app",
                                       .appVersion = {},
                                       .mainBundle = {},
                                       .userDefaults = folder.path / "defaults.sqlite",
                                       .apiBases = {},
                                       .advertisingIdentifier = {}});
    auto& ports = platform.ports;
    EXPECT_NE(threadsOfTheSdk(), before);
    EXPECT_EQ(ports.mainBundle->path(), fs::read_symlink("/proc/self/exe").parent_path());
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
  const auto set = [](const char* name, const char* value) {
    value ? setenv(name, value, 1) : unsetenv(name);
  };
  for (const auto& one : cases) {
    set("LANGUAGE", one.language);
    set("LC_ALL", one.all);
    set("LC_MESSAGES", one.messages);
    set("LANG", one.lang);
    const LinuxLocale locale;
    const std::string what = one.preferred.front() + " " + one.code.value_or("-");
    EXPECT_EQ(locale.preferredLanguages(), one.preferred) << what;
    EXPECT_EQ(locale.languageCode(), one.code) << what;
    EXPECT_EQ(locale.countryCode(), one.country) << what;
  }
}

TEST(LinuxPlatform, HandsOutAnIdentifierOnlyIfItIsOne) {
  const HostIdentifiers good("6d92078a-8246-4ba4-ae5b-76104861e7dc", true);
  const HostIdentifiers bad("not an identifier", false);
  EXPECT_EQ(good.advertisingIdentifier(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
  EXPECT_EQ(bad.advertisingIdentifier(), "00000000-0000-0000-0000-000000000000");
  using Status = IdentifierManager::AuthorizationStatus;
  EXPECT_EQ(good.trackingAuthorizationStatus(), Status::authorized);
  EXPECT_NE(bad.trackingAuthorizationStatus(), Status::authorized);
}

TEST(LinuxPlatform, PrintsALineInOneWrite) {
  int packets[2];  // a pipe in this mode hands out each write by itself
  ASSERT_EQ(pipe2(packets, O_DIRECT | O_CLOEXEC), 0);
  std::fflush(stdout);
  const int before = dup(STDOUT_FILENO);
  dup2(packets[1], STDOUT_FILENO);
  ProcessOutput().print("a line");
  dup2(before, STDOUT_FILENO);
  char written[100] = {};
  EXPECT_EQ(read(packets[0], written, sizeof written - 1), 7);
  EXPECT_STREQ(written, "a line\n");
  for (const int fd : {before, packets[0], packets[1]}) close(fd);
}

}  // namespace
}  // namespace kva::test
