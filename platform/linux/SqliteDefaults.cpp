#include "platform/linux/SqliteDefaults.h"

#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kva {
namespace {

constexpr int kPagesToCheckpoint = 1000;
/// A log that grows this long although it is being moved is moved by whoever writes.
constexpr int kPagesToWaitAt = 16000;

/// Holds the folder while a file in it is opened or set aside, so that of two processes that find
/// a damaged file only one replaces it.
class FolderLock {
 public:
  explicit FolderLock(const std::filesystem::path& folder)
      : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (folder_ >= 0) flock(folder_, LOCK_EX);
  }
  ~FolderLock() {
    if (folder_ >= 0) ::close(folder_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int folder_;
};

bool isDamage(int result) {
  const int kind = result & 0xff;
  return kind == SQLITE_NOTADB || kind == SQLITE_CORRUPT;
}

}  // namespace

SqliteDefaults::SqliteDefaults(std::filesystem::path file, std::function<void(std::string)> log)
    : file_(std::filesystem::absolute(file)), log_(std::move(log)) {
  auto opened = openStore();
  state_.with([&](State& state) {
    state.store = std::move(opened);
    state.store->setCommitHook([this, &state](int pages) { committed(state, pages); });
  });
}

std::unique_ptr<SqliteStore> SqliteDefaults::openStore() {
  const auto folder = file_.parent_path();
  g_mkdir_with_parents(folder.c_str(), 0700);
  const FolderLock lock(folder);
  using Access = SqliteStore::Access;
  auto store = std::make_unique<SqliteStore>();
  int result = store->open(file_, Access::readWrite);
  if (isDamage(result)) {
    store = std::make_unique<SqliteStore>();
    setAside();
    result = store->open(file_, Access::readWrite);
  }
  if (result == SQLITE_OK) return store;
  store = std::make_unique<SqliteStore>();
  if (store->open(file_, Access::immutable) == SQLITE_OK) return store;
  return std::make_unique<SqliteStore>();
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
  const int complaint = state_.with([&](State& state) {
    state.unsaved.insert_or_assign(std::string(key), std::move(value));
    const int result = state.store->write(state.unsaved);
    if (result == SQLITE_OK) {
      state.unsaved.clear();
      return SQLITE_OK;
    }
    return std::exchange(state.complained, true) ? SQLITE_OK : result;
  });
  if (complaint != SQLITE_OK)
    log_("Settings cannot be stored (" + std::string(sqlite3_errstr(complaint)) +
         "). They are kept in memory.");
}

/// Under the guard, on the thread that wrote.
void SqliteDefaults::committed(State& state, int pagesInLog) {
  if (pagesInLog >= kPagesToWaitAt) {
    state.store->checkpoint();
  } else if (pagesInLog >= kPagesToCheckpoint && !std::exchange(state.checkpointing, true)) {
    checkpoints_.async([this] { checkpoint(); });
  }
}

void SqliteDefaults::checkpoint() {
  SqliteStore store;
  if (store.open(file_, SqliteStore::Access::readWrite) == SQLITE_OK) store.checkpoint();
  state_.with([](State& state) { state.checkpointing = false; });
}

}  // namespace kva
