// The platform as a whole, and the facts of the host and the machine.

#include <map>
#include <set>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <platform/linux/HostFacts.h>
#include <platform/linux/ProcessOutput.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

namespace fs = std::filesystem;

/// The names of this process's threads, without GLib's, which do not end.
std::multiset<std::string> threadsOfTheSdk() {
  std::multiset<std::string> names;
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name.starts_with("kva-") || name.starts_with("org.")) names.insert(name);
  }
  return names;
}

TEST(LinuxPlatform, StartsWithoutAMainLoopAndLeavesNoThread) {
  TemporaryFolder folder;
  const auto before = threadsOfTheSdk();
  for (int life = 0; life < 2; ++life) {
    auto platform = launchPlatform(folder);
    auto& ports = platform.ports;
    EXPECT_NE(threadsOfTheSdk(), before);
    EXPECT_EQ(ports.mainBundle->resourceFolders().front(),
              fs::read_symlink("/proc/self/exe").parent_path());
    std::atomic<bool> answered{false};
    auto timer = ports.runLoop->schedule(0.01, Repeats::yes, [] {});
    ports.mainQueue->async([] { ADD_FAILURE() << "ran without a loop"; });
    EXPECT_EQ(threadsOfTheSdk().count("kva-session"), 0U) << "before the first request";
    // The second session is invalidated before its first request.
    if (life == 1) ports.urlSession->invalidate();
    ports.urlSession->send(get(refusingUrl()), [&](URLSession::Outcome) { answered = true; });
    platform = {};
    EXPECT_TRUE(answered);
    EXPECT_EQ(threadsOfTheSdk(), before);
  }
}

TEST(LinuxPlatform, ReadsTheLanguagesOfTheEnvironment) {
  const struct {
    std::map<std::string, std::string> environment;
    std::vector<std::string> preferred;
    std::optional<std::string> code, country;
  } cases[] = {
      {{{"LANG", "en_US.UTF-8"}}, {"en-US", "en"}, "en", "US"},
      {{{"LANG", "en_US"}, {"LC_MESSAGES", "tr_TR.UTF-8"}}, {"tr-TR", "tr"}, "tr", "TR"},
      {{{"LC_MESSAGES", "tr_TR"}, {"LC_ALL", "de_AT@euro"}}, {"de-AT", "de"}, "de", "AT"},
      {{{"LANG", "tr_TR.UTF-8"}, {"LANGUAGE", "fr_CA:de"}}, {"fr-CA", "fr", "de"}, "tr", "TR"},
      {{{"LANG", "eo"}}, {"eo"}, "eo", {}},
      {{{"LANG", "C.UTF-8"}}, {"en"}, {}, {}},
      {{}, {"en"}, {}, {}},
      {{{"LANG", "en_US"}, {"LC_ALL", "POSIX"}}, {"en"}, {}, {}},
  };
  for (const auto& one : cases) {
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
    for (const auto& [name, value] : one.environment) setenv(name.c_str(), value.c_str(), 1);
    SCOPED_TRACE(testing::PrintToString(one.environment));
    const LinuxLocale locale;
    EXPECT_EQ(locale.preferredLanguages(), one.preferred);
    EXPECT_EQ(locale.languageCode(), one.code);
    EXPECT_EQ(locale.countryCode(), one.country);
  }
}

TEST(LinuxPlatform, WithholdsAnIdentifierThatIsNoUUID) {
  const HostIdentifiers good("6d92078a-8246-4ba4-ae5b-76104861e7dc", true);
  const HostIdentifiers bad("not an identifier", false);
  EXPECT_EQ(good.advertisingIdentifier(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
  EXPECT_EQ(bad.advertisingIdentifier(), "00000000-0000-0000-0000-000000000000");
  using Status = IdentifierManager::AuthorizationStatus;
  EXPECT_EQ(good.trackingAuthorizationStatus(), Status::authorized);
  EXPECT_NE(bad.trackingAuthorizationStatus(), Status::authorized);
}

/// Prints to a pipe or a socket pair instead of standard output.
struct LogLines : testing::Test {
  void open(bool isSocket, int pipeFlags = 0) {
    ASSERT_EQ(isSocket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)
                       : pipe2(ends, O_CLOEXEC | pipeFlags),
              0);
  }
  void TearDown() override {
    for (const int fd : ends) close(fd);
  }
  void print(std::string_view text) {
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    output.print(LogLevel::i, text);
    dup2(before, STDOUT_FILENO);
    close(before);
  }
  /// What can be read without waiting.
  std::string arrived() {
    std::string text;
    pollfd waiting{.fd = ends[0], .events = POLLIN, .revents = 0};
    while (poll(&waiting, 1, 0) > 0) text += packet();
    return text;
  }
  /// The result of one read.
  std::string packet() {
    std::string text(4096, 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], text.data(), 4096), 0)));
    return text;
  }

  ProcessOutput output;
  int ends[2] = {-1, -1};
};

TEST_F(LogLines, AreOneWriteEach) {
  open(false, O_DIRECT);  // such a pipe returns one write for each read
  print("a line");
  print("another");
  EXPECT_EQ(packet(), "a line\n");
  EXPECT_EQ(packet(), "another\n");
}

TEST_F(LogLines, DoNotBlockOrEndTheHostWhenNobodyReads) {
  for (const bool isSocket : {false, true}) {
    open(isSocket);
    const std::string large(1 << 20, 'x');  // more than a pipe or a socket holds
    const auto began = std::chrono::steady_clock::now();
    print(large);
    for (int line = 0; line < 100; ++line) print("dropped");
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5)) << isSocket;
    EXPECT_THAT(arrived(), testing::MatchesRegex("x+")) << isSocket;
    print("whole");
    print("again");
    EXPECT_EQ(arrived(), "\nwhole\nagain\n") << isSocket;
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "the host's output has changed";

    close(std::exchange(ends[0], -1));
    print("no reader");  // a SIGPIPE would end this process
    close(std::exchange(ends[1], -1));
  }
}

}  // namespace
}  // namespace kva::test
