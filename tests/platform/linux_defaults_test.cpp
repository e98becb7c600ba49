// User defaults shared with other processes, in damaged files, and on media that refuse writes.
#include <platform/linux/SqliteDefaults.h>

#include <sys/file.h>
#include <sys/stat.h>

#include <Kelvara/reporting/ReportStore.h>
#include <platform/linux_support.h>
#include <nlohmann/json.hpp>

namespace kva::test {
namespace {

namespace fs = std::filesystem;

struct LinuxDefaults : testing::Test {
  std::unique_ptr<SqliteDefaults> open(const fs::path& path) {
    return std::make_unique<SqliteDefaults>(path, [this](const std::string&) { ++lines; });
  }
  static std::string contentsOf(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator(stream), {}};
  }

  /// Runs `body` in a child process. Its exit status is the number of failed checks.
  static pid_t inProcess(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(std::min(body(), 70));
    return child;
  }
  static int statusOf(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  /// Runs statements on a connection of its own, which stands for another process.
  std::shared_ptr<sqlite3> execute(const char* statements) {
    sqlite3* user = nullptr;
    sqlite3_open(file.c_str(), &user);
    EXPECT_EQ(sqlite3_exec(user, statements, nullptr, nullptr, nullptr), SQLITE_OK);
    return {user, sqlite3_close};
  }
  /// Makes the file one of an earlier version, which stored JSON as a whole only.
  void makeOld() {
    execute(
        "DROP TRIGGER parts_replaced; DROP TRIGGER parts_removed;"
        "DROP TABLE parts; PRAGMA wal_checkpoint(TRUNCATE)");
  }

  TemporaryFolder folder;
  fs::path file = folder.path / "app" / "defaults.sqlite";
  std::atomic<int> lines{0};
};

TEST_F(LinuxDefaults, EditsTimeOutWhileAnotherProcessEditsAndSucceedOnceItIsKilled) {
  int pipes[2];
  ASSERT_EQ(pipe(pipes), 0);
  const pid_t holder = inProcess([&] {
    SqliteDefaults theirs(file, [](const std::string&) {});
    const auto claim = theirs.claim(UserDefaults::Task::upload);
    theirs.set("json", JsonParts{JsonParts::Kind::object, {}});
    const bool isDone = theirs.edit([&](EditedValues& values) {
      values.set("half", true);
      values.setPart("json", "half", "1");
      std::ignore = write(pipes[1], "x", 1);
      pause();
    });
    return isDone;
  });
  char ready = 0;
  ASSERT_EQ(read(pipes[0], &ready, 1), 1);
  auto store = open(file);
  EXPECT_FALSE(store->claim(UserDefaults::Task::upload));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(store->edit([](KeyedValues& values) { values.set("edited", true); }));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(20));
  EXPECT_FALSE(store->value("edited")) << "a failed edit changes nothing";
  EXPECT_EQ(lines, 1);
  kill(holder, SIGKILL);
  EXPECT_EQ(statusOf(holder), -1);
  EXPECT_TRUE(store->claim(UserDefaults::Task::upload));
  EXPECT_TRUE(store->edit([](KeyedValues& values) { values.set("edited", true); }));
  EXPECT_TRUE(store->value("edited"));
  EXPECT_FALSE(store->value("half"));
  EXPECT_EQ(asText(*store->get<Bytes>("json")), "{}");
  for (const int end : pipes) close(end);
}

TEST_F(LinuxDefaults, RenamesADamagedFileAndLogsItOnce) {
  open(file)->set("large", std::string(200'000, 'x'));
  std::string damaged = contentsOf(file);
  damaged.replace(4096, 8192, std::string(8192, '\x5a'));
  for (const auto& contents : {std::string(5000, 'g'), damaged}) {
    fs::remove_all(file.parent_path());
    fs::create_directory(file.parent_path());
    std::ofstream(file, std::ios::binary) << contents;
    // Two processes open it at the same time; only one replaces it.
    const auto begin = [&](const char* own) {
      int logged = 0;
      SqliteDefaults store(file, [&](const std::string&) { ++logged; });
      store.set(own, true);
      return logged;
    };
    const pid_t first = inProcess([&] { return begin("first"); });
    const pid_t second = inProcess([&] { return begin("second"); });
    EXPECT_EQ(statusOf(first) + statusOf(second), 1);
    auto store = open(file);
    EXPECT_TRUE(store->get<bool>("first"));
    EXPECT_TRUE(store->get<bool>("second"));
    EXPECT_FALSE(store->value("large"));
    EXPECT_EQ(lines, 0);
    std::vector<std::string> aside;
    for (const auto& entry : fs::directory_iterator(file.parent_path()))
      if (entry.path().native().find(".damaged-") != std::string::npos)
        aside.push_back(contentsOf(entry.path()));
    EXPECT_TRUE(aside == std::vector{contents});
  }
}

TEST_F(LinuxDefaults, StayInMemoryIfTheFileCannotBeOpened) {
  const auto noFolder = folder.path / "a file";
  std::ofstream(noFolder) << "not a folder";
  const auto fifo = folder.path / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Another descriptor stands for another process.
  fs::create_directories(folder.path / "locked");
  const int lock = ::open((folder.path / "locked").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  open(file)->set("stored", true);
  const auto user = execute("PRAGMA locking_mode = EXCLUSIVE; DELETE FROM defaults");
  for (const fs::path& hopeless :
       {noFolder / "defaults.sqlite", fs::path("/proc/kelvara/defaults.sqlite"), folder.path, fifo,
        folder.path / "locked" / "defaults.sqlite", file}) {
    lines = 0;
    const auto began = std::chrono::steady_clock::now();
    auto store = open(hopeless);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1900))
        << hopeless;
    EXPECT_FALSE(store->value("stored")) << "read from a file that another process changes";
    store->set("text", std::string("kept"));
    EXPECT_TRUE(store->edit([](KeyedValues& values) { values.set("number", std::int64_t{7}); }));
    store->remove("text");
    EXPECT_FALSE(store->value("text")) << hopeless;
    EXPECT_EQ(store->get<std::int64_t>("number"), 7) << hopeless;
    store->set("json", JsonParts{JsonParts::Kind::array, {}});
    EXPECT_TRUE(store->edit([](EditedValues& values) { values.setPart("json", "1", "1"); }));
    EXPECT_EQ(asText(*store->get<Bytes>("json")), "[1]") << hopeless;
    EXPECT_EQ(lines, 1) << hopeless;
  }
  close(lock);
}

TEST_F(LinuxDefaults, WriteOneReportWhateverTheirNumberAndConvertFilesOfEarlierVersions) {
  const auto report = [](int number) {
    return BidReport{.bidId = "bid " + std::to_string(number), .createdAt = 1.5};
  };
  Json whole;
  for (int i = 0; i < 500; ++i) whole[report(i).bidId] = report(i).toJson();
  open(file)->set("reports", toBytes(whole.dump()));
  makeOld();
  const std::shared_ptr<UserDefaults> store = open(file);
  ReportStore reports(store, "reports");
  const auto track = [&](int number) {
    BidReport changed = report(number);
    changed.isClicked = true;
    whole[changed.bidId] = changed.toJson();
    reports.set(changed);
    reports.persist();
  };
  track(0);
  const auto before = fs::file_size(file.native() + "-wal");
  for (int i = 1; i <= 100; ++i) track(i * 7 % 600);
  constexpr std::uintmax_t kPage = 4096 + 24;
  EXPECT_LT(fs::file_size(file.native() + "-wal") - before, 100 * 2 * kPage);
  EXPECT_EQ(Json::parse(asText(*open(file)->get<Bytes>("reports"))), whole);
}

TEST_F(LinuxDefaults, KeepValuesInMemoryOnAFullDiskAndOnReadOnlyMedia) {
  if (!isInNamespaceOfItsOwn()) return;
  const char* path = folder.path.c_str();
  ASSERT_EQ(mount("tmpfs", path, "tmpfs", 0, "size=512k"), 0);
  auto store = open(file);
  store->set("small", true);
  const auto ballast = folder.path / "ballast";
  std::ofstream(ballast) << std::string(1 << 20, 'b');  // fills the disk
  const std::string large(60'000, 'l');
  store->set("large", large);
  EXPECT_EQ(store->get<std::string>("large"), large);
  EXPECT_EQ(lines, 1);
  EXPECT_FALSE(open(file)->value("large"));
  fs::remove(ballast);
  store->set("small", false);
  EXPECT_EQ(open(file)->get<std::string>("large"), large) << "saved now that the disk has room";
  EXPECT_EQ(open(file)->get<bool>("small"), false);

  store.reset();
  lines = 0;
  makeOld();
  ASSERT_EQ(mount(nullptr, path, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  store = open(file);
  EXPECT_EQ(store->get<std::string>("large"), large);
  store->set("large", std::string("changed"));
  store->set("other", true);
  EXPECT_EQ(store->get<std::string>("large"), "changed");
  EXPECT_EQ(lines, 1);
  store.reset();
  EXPECT_EQ(open(file)->get<std::string>("large"), large);
  EXPECT_EQ(umount(path), 0);
}

TEST_F(LinuxDefaults, CheckpointsLimitTheLogOfChanges) {
  auto store = open(file);
  for (int i = 0; i < 3000; ++i)
    store->set("key", std::string(20'000, static_cast<char>('a' + i % 26)));
  EXPECT_LT(fs::file_size(file.native() + "-wal"), 70U << 20);
  EXPECT_TRUE(spinUntil([&] {
    store->set("key", std::string(20'000, 'z'));
    return fs::file_size(file) > 20'000;
  })) << "no checkpoint while the store is open";
}

}  // namespace
}  // namespace kva::test
