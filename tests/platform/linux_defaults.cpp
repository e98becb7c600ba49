// The stored settings among other processes, in damaged files and where nothing can be written.
#include <platform/linux/SqliteDefaults.h>

#include <cmath>
#include <csignal>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <platform/linux_support.h>

namespace kva::test {
namespace {

namespace fs = std::filesystem;

struct LinuxDefaults : testing::Test {
  std::unique_ptr<SqliteDefaults> open(const fs::path& path) {
    return std::make_unique<SqliteDefaults>(path, [this](const std::string& line) {
      lines.with([&](auto& all) { all.push_back(line); });
    });
  }
  std::size_t countLines() { return lines.get().size(); }
  void write(const std::string& bytes) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
  }
  std::vector<fs::path> setAside() {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(file.parent_path()))
      if (entry.path().native().find(".damaged-") != std::string::npos)
        found.push_back(entry.path());
    return found;
  }

  /// Runs `body` in a process of its own, whose exit status is how many of its checks failed.
  static pid_t inProcess(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    return child;
  }
  static int statusOf(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  TemporaryFolder folder;
  fs::path file = folder.path / "app" / "defaults.sqlite";
  Guarded<std::vector<std::string>> lines;
};

TEST_F(LinuxDefaults, BelongToTheirOwnerAlone) {
  const mode_t before = umask(0);
  write("");
  chmod(file.c_str(), 0644);
  auto store = open(file);
  store->set("key", true);
  umask(before);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat facts {};
    ASSERT_EQ(stat((file.native() + suffix).c_str(), &facts), 0) << suffix;
    EXPECT_EQ(facts.st_mode & 0777, 0600u) << suffix;
  }
  auto fresh = open(folder.path / "new" / "deeper" / "defaults.sqlite");
  for (const char* made : {"new", "new/deeper"})
    EXPECT_EQ(fs::status(folder.path / made).permissions(), fs::perms::owner_all) << made;
}

TEST_F(LinuxDefaults, KeepsNumbersThatSqliteHasNoWordFor) {
  open(file)->set("nan", std::nan(""));
  auto again = open(file);
  again->set("zero", -0.0);
  ASSERT_TRUE(again->get<double>("nan"));
  EXPECT_TRUE(std::isnan(*again->get<double>("nan")));
  EXPECT_TRUE(std::signbit(*again->get<double>("zero")));
}

TEST_F(LinuxDefaults, TwoProcessesOnOneFile) {
  constexpr int kRounds = 300;
  // Neither waits for the other to have made the file.
  const auto hammer = [&](const std::string& own) {
    int failures = 0;
    SqliteDefaults store(file, [&](const std::string&) { ++failures; });
    for (int round = 0; round < kRounds; ++round) {
      const std::string text(static_cast<std::size_t>(round) * 50, own.front());
      store.set(own, text);
      store.set("common", text);
      const auto common = store.get<std::string>("common");
      if (!common || common->find_first_not_of(common->substr(0, 1)) != std::string::npos)
        ++failures;
      if (store.get<std::string>(own) != text) ++failures;
    }
    return std::min(failures, 100);
  };
  const pid_t first = inProcess([&] { return hammer("a"); });
  const pid_t second = inProcess([&] { return hammer("b"); });
  EXPECT_EQ(statusOf(first), 0);
  EXPECT_EQ(statusOf(second), 0);
  auto store = open(file);
  for (const char* own : {"a", "b"})
    EXPECT_EQ(store->get<std::string>(own), std::string((kRounds - 1) * 50, *own));
  EXPECT_EQ(countLines(), 0u);
}

TEST_F(LinuxDefaults, SetsAsideWhatIsNoDatabaseAndSaysSoOnce) {
  const std::string garbage(5000, 'g');
  write(garbage);
  // Two processes find it at a time; one of them replaces it.
  const auto begin = [&](const char* own) {
    int told = 0;
    SqliteDefaults store(file, [&](const std::string&) { ++told; });
    store.set(own, true);
    return told;
  };
  const pid_t first = inProcess([&] { return begin("first"); });
  const pid_t second = inProcess([&] { return begin("second"); });
  EXPECT_EQ(statusOf(first) + statusOf(second), 1);
  auto store = open(file);
  EXPECT_TRUE(store->get<bool>("first"));
  EXPECT_TRUE(store->get<bool>("second"));
  EXPECT_EQ(countLines(), 0u);
  const auto aside = setAside();
  ASSERT_EQ(aside.size(), 1u);
  std::ifstream stream(aside.front(), std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator(stream), {}), garbage);
}

TEST_F(LinuxDefaults, SetsAsideADatabaseThatWasDamaged) {
  open(file)->set("large", std::string(200'000, 'x'));
  {
    std::fstream inside(file, std::ios::binary | std::ios::in | std::ios::out);
    inside.seekp(4096);
    inside << std::string(8192, '\x5a');
  }
  auto store = open(file);
  EXPECT_EQ(countLines(), 1u);
  EXPECT_EQ(setAside().size(), 1u);
  EXPECT_FALSE(store->value("large"));
  store->set("fresh", true);
  store = open(file);
  EXPECT_EQ(store->get<bool>("fresh"), true);
  EXPECT_EQ(countLines(), 1u);
}

TEST_F(LinuxDefaults, StayInMemoryWhereNoFileCanBe) {
  write("a file, not a folder");
  for (const fs::path& hopeless :
       {file / "defaults.sqlite", fs::path("/proc/kelvara/defaults.sqlite"), folder.path}) {
    lines.set({});
    auto store = open(hopeless);
    store->set("text", std::string("kept"));
    store->set("number", std::int64_t{7});
    store->set("number", std::int64_t{8});
    store->remove("text");
    EXPECT_FALSE(store->value("text")) << hopeless;
    EXPECT_EQ(store->get<std::int64_t>("number"), 8) << hopeless;
    EXPECT_EQ(countLines(), 1u) << hopeless;
  }
}

/// Mounts are the process's own: in a child that has left the mount namespace.
bool leaveMountNamespace() {
  const bool left = unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  return left && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}
constexpr int kRefused = 77;

TEST_F(LinuxDefaults, ReadsOnMediaThatCannotBeWritten) {
  open(file)->set("stored", std::string("before"));
  const int status = statusOf(inProcess([&] {
    const char* path = folder.path.c_str();
    if (!leaveMountNamespace() || mount(path, path, nullptr, MS_BIND, nullptr) != 0 ||
        mount(path, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
      return kRefused;
    auto store = open(file);
    int failures = store->get<std::string>("stored") != "before";
    store->set("stored", std::string("after"));
    failures += store->get<std::string>("stored") != "after";
    store->set("other", true);
    failures += store->get<bool>("other") != true;
    return failures + (countLines() != 1);
  }));
  if (status == kRefused) GTEST_SKIP() << "mount namespaces are refused here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(open(file)->get<std::string>("stored"), "before");
}

TEST_F(LinuxDefaults, CatchUpWhenAFullDiskHasRoomAgain) {
  const int status = statusOf(inProcess([&] {
    if (!leaveMountNamespace() || mount("tmpfs", folder.path.c_str(), "tmpfs", 0, "size=512k") != 0)
      return kRefused;
    auto store = open(file);
    store->set("small", true);
    const auto ballast = folder.path / "ballast";
    {
      std::ofstream stream(ballast, std::ios::binary);
      stream << std::string(1 << 20, 'b');  // as much as there is room for
    }
    const std::string large(60'000, 'l');
    store->set("large", large);
    int failures = store->get<std::string>("large") != large;
    failures += countLines() != 1;
    failures += store->get<bool>("small") != true;
    // Another process does not see it yet, then it does.
    failures += open(file)->get<std::string>("large").has_value();
    fs::remove(ballast);
    store->set("small", false);
    auto other = open(file);
    failures += other->get<std::string>("large") != large;
    failures += other->get<bool>("small") != false;
    return failures;
  }));
  if (status == kRefused) GTEST_SKIP() << "mount namespaces are refused here";
  EXPECT_EQ(status, 0);
}

TEST_F(LinuxDefaults, KeepWhatWasAcknowledgedWhenTheProcessIsKilled) {
  for (int run = 0; run < 5; ++run) {
    int acknowledged[2];
    ASSERT_EQ(pipe(acknowledged), 0);
    const pid_t child = inProcess([&]() -> int {
      SqliteDefaults store(file, [](const std::string&) {});
      for (std::int64_t round = 1;; ++round) {
        store.set("round", round);
        store.set("padding", std::string(20'000, 'p'));
        if (::write(acknowledged[1], &round, sizeof round) != sizeof round) return 1;
      }
    });
    close(acknowledged[1]);
    std::int64_t last = 0;
    for (int i = 0; i < 100 + run * 37; ++i)
      ASSERT_EQ(read(acknowledged[0], &last, sizeof last), ssize_t{sizeof last});
    kill(child, SIGKILL);
    while (read(acknowledged[0], &last, sizeof last) == sizeof last) {
    }
    close(acknowledged[0]);
    EXPECT_EQ(statusOf(child), -1);
    EXPECT_GE(open(file)->get<std::int64_t>("round").value_or(0), last);
  }
  EXPECT_EQ(countLines(), 0u);
}

TEST_F(LinuxDefaults, TheLogOfChangesDoesNotGrowForEver) {
  auto store = open(file);
  for (int i = 0; i < 3000; ++i)
    store->set("key", std::string(20'000, static_cast<char>('a' + i % 26)));
  // 60 MB went through it.
  EXPECT_LT(fs::file_size(file.native() + "-wal"), 70u << 20);
  EXPECT_TRUE(spinMainLoopUntil([&] {
    store->set("key", std::string(20'000, 'z'));
    return fs::file_size(file) > 20'000;
  })) << "nothing is moved to the database while it is open";
}

}  // namespace
}  // namespace kva::test
