#include "platform/linux/SqliteDefaults.h"

#include <cerrno>
#include <ctime>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kva {
namespace {

constexpr int kPagesToCheckpoint = 1000;
/// At this length of the log the writing thread runs the checkpoint itself.
constexpr int kPagesToWaitAt = 16000;

using Clock = SqliteStore::Clock;
/// The limit for waiting for other processes while the file is opened.
constexpr std::chrono::seconds kLockTimeout(1);

/// Locks the folder while the file is opened or set aside, so that only one of two processes
/// replaces a damaged file.
class FolderLock {
 public:
  FolderLock(const std::filesystem::path& folder, Clock::time_point deadline)
      : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (folder_ >= 0 && flock(folder_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      isHeldByAnother_ = Clock::now() >= deadline;
      if (isHeldByAnother_) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ~FolderLock() {
    if (folder_ >= 0) ::close(folder_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

  bool isHeldByAnother() const { return isHeldByAnother_; }

 private:
  int folder_;
  bool isHeldByAnother_ = false;
};

/// True for example for a FIFO, on which SQLite would block without end.
bool isNoFile(const std::filesystem::path& path) {
  std::error_code ignored;
  const auto status = std::filesystem::status(path, ignored);
  return std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
}

/// A lock on one byte of a file. A child of the host may hold a copy of the descriptor, so the
/// destructor unlocks explicitly.
class ByteLock {
 public:
  ByteLock(const std::string& file, off_t byte)
      : file_(::open(file.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0600)),
        byte_(byte),
        isHeldElsewhere_(set(F_WRLCK) != 0 && (errno == EAGAIN || errno == EACCES)) {}
  ~ByteLock() {
    if (file_ < 0) return;
    if (!isHeldElsewhere_) set(F_UNLCK);
    ::close(file_);
  }
  ByteLock(const ByteLock&) = delete;
  ByteLock& operator=(const ByteLock&) = delete;
  /// Also false if the file cannot be created: nobody shares a store that cannot be written.
  bool isHeldElsewhere() const { return isHeldElsewhere_; }

 private:
  int set(short type) const {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = byte_;
    range.l_len = 1;
    return fcntl(file_, F_OFD_SETLK, &range);
  }

  int file_;
  off_t byte_;
  bool isHeldElsewhere_;
};

bool isDamage(int result) {
  const int kind = result & 0xff;
  return kind == SQLITE_NOTADB || kind == SQLITE_CORRUPT;
}

}  // namespace

/// The values during one `edit`: its own changes, then unsaved ones, then the stored ones. Changed
/// parts are written at once, in the edit's transaction.
class SqliteDefaults::Edit final : public EditedValues {
 public:
  explicit Edit(State& state) : store_(*state.store), changes(state.unsaved) {}

  std::optional<Value> value(std::string_view key) const override {
    const auto changed = changes.find(key);
    return changed == changes.end() ? store_.read(key) : changed->second;
  }
  void set(std::string_view key, Value value) override {
    changes.insert_or_assign(std::string(key), std::move(value));
  }
  void remove(std::string_view key) override {
    changes.insert_or_assign(std::string(key), std::nullopt);
  }
  void setPart(std::string_view key, const std::string& name,
               const std::optional<std::string>& text) override {
    auto changed = changes.find(key);
    if (changed == changes.end()) {
      if (store_.isWritable()) return store_.writePart(key, name, text);
      changed = changes.emplace(key, store_.read(key)).first;
    }
    std::get<JsonParts>(*changed->second).set(name, text);
  }
  std::uint64_t foreignChanges() const override { return store_.foreignChanges(); }

 private:
  SqliteStore& store_;

 public:
  SqliteStore::Changes changes;
};

SqliteDefaults::SqliteDefaults(std::filesystem::path file, std::function<void(std::string)> log)
    : file_(std::filesystem::absolute(file)), log_(std::move(log)) {
  auto opened = openStore();
  state_.with([&](State& state) {
    state.complained = opened == nullptr;
    state.store = opened ? std::move(opened) : std::make_unique<SqliteStore>();
    state.store->setCommitHook([this, &state](int pages) { committed(state, pages); });
  });
}

std::unique_ptr<SqliteStore> SqliteDefaults::openStore() {
  const auto folder = file_.parent_path();
  g_mkdir_with_parents(folder.c_str(), 0700);
  const auto inMemory = [&](const std::string& why) {
    log_("Settings cannot be stored in " + file_.native() + " (" + why +
         "). They are kept in memory.");
    return nullptr;
  };
  for (const char* companion : {"", "-wal", "-shm"})
    if (isNoFile(file_.native() + companion)) return inMemory("it is no regular file");
  const auto deadline = Clock::now() + kLockTimeout;
  const FolderLock lock(folder, deadline);
  if (lock.isHeldByAnother()) return inMemory("another process locks the folder");
  using Access = SqliteStore::Access;
  auto store = std::make_unique<SqliteStore>();
  int result = store->open(file_, Access::readWrite, deadline);
  if (isDamage(result)) {
    store = std::make_unique<SqliteStore>();
    setAside();
    result = store->open(file_, Access::readWrite, deadline);
  }
  if (result == SQLITE_OK) return store;
  // A file that another process uses is not immutable.
  if ((result & 0xff) == SQLITE_BUSY) return inMemory("another process locks it");
  store = std::make_unique<SqliteStore>();
  if (store->open(file_, Access::immutable, deadline) == SQLITE_OK) return store;
  return inMemory(sqlite3_errstr(result));
}

void SqliteDefaults::setAside() {
  const std::string ending = ".damaged-" + std::to_string(std::time(nullptr));
  std::error_code error;
  for (const char* companion : {"-wal", "-shm"})
    std::filesystem::remove(file_.native() + companion, error);
  std::filesystem::rename(file_, file_.native() + ending, error);
  if (!error)
    log_("The stored settings cannot be read. They were set aside as " + file_.filename().native() +
         ending + " and begin afresh.");
}

std::optional<UserDefaults::Value> SqliteDefaults::value(std::string_view key) const {
  return state_.with([&](State& state) -> std::optional<Value> {
    if (auto unsaved = state.unsaved.find(key); unsaved != state.unsaved.end())
      return unsaved->second;
    return state.store->read(key);
  });
}

void SqliteDefaults::set(std::string_view key, Value value) { change(key, std::move(value)); }

void SqliteDefaults::remove(std::string_view key) { change(key, std::nullopt); }

void SqliteDefaults::change(std::string_view key, std::optional<Value> value) {
  complain(state_.with([&](State& state) {
    state.unsaved.insert_or_assign(std::string(key), std::move(value));
    const int result = state.store->write(state.unsaved);
    if (result == SQLITE_OK) state.unsaved.clear();
    return result;
  }));
}

std::uint64_t SqliteDefaults::foreignChanges() const {
  return state_.with([](State& state) { return state.store->foreignChanges(); });
}

bool SqliteDefaults::edit(const std::function<void(EditedValues&)>& change) {
  bool isDone = false;
  complain(state_.with([&](State& state) {
    Edit edit(state);
    if (!state.store->isWritable()) {
      change(edit);
      const bool isChanged = edit.changes != state.unsaved;
      state.unsaved = std::move(edit.changes);
      isDone = true;
      return isChanged ? SQLITE_READONLY : SQLITE_OK;
    }
    const int result = state.store->edit([&]() -> const auto& {
      change(edit);
      return edit.changes;
    });
    isDone = result == SQLITE_OK;
    if (isDone) state.unsaved.clear();
    return result;
  }));
  return isDone;
}

UserDefaults::Claim SqliteDefaults::claim(Task task) {
  auto lock = std::make_shared<ByteLock>(file_.native() + "-claims", static_cast<off_t>(task));
  return lock->isHeldElsewhere() ? nullptr : Claim(std::move(lock));
}

/// Logs the first failed write.
void SqliteDefaults::complain(int result) {
  if (result == SQLITE_OK) return;
  if (state_.with([](State& state) { return std::exchange(state.complained, true); })) return;
  log_("Settings cannot be stored (" + std::string(sqlite3_errstr(result)) +
       "). They are kept in memory.");
}

/// Runs under the lock, on the thread that wrote.
void SqliteDefaults::committed(State& state, int pagesInLog) {
  if (pagesInLog >= kPagesToWaitAt) {
    state.store->checkpoint();
  } else if (pagesInLog >= kPagesToCheckpoint && !std::exchange(state.checkpointing, true)) {
    checkpoints_.async([this] { checkpoint(); });
  }
}

void SqliteDefaults::checkpoint() {
  SqliteStore store;
  if (store.open(file_, SqliteStore::Access::readWrite, Clock::now() + kLockTimeout) == SQLITE_OK)
    store.checkpoint();
  state_.with([](State& state) { state.checkpointing = false; });
}

}  // namespace kva
