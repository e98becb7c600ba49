// The time to track an action, to check a plan's caps and to count an impression, and the bytes
// that they write, by the number of stored reports and plans.
#include <fstream>
#include <map>

#include "bench/Row.h"
#include "bench/Store.h"

namespace kva::bench {
namespace {

constexpr int kRounds = 25, kTimes = 100;

/// What this process has written to files so far.
double bytesWritten() {
  std::ifstream io("/proc/self/io");
  for (std::string name; io >> name;) {
    double value = 0;
    io >> value;
    if (name == "wchar:") return value;
  }
  return 0;
}

/// One row of a table in SQLite, replaced with the promises of the user defaults.
class BareSqlite {
 public:
  explicit BareSqlite(const std::filesystem::path& file) {
    sqlite3_open(file.c_str(), &connection_);
    sqlite3_exec(connection_,
                 "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                 "PRAGMA wal_autocheckpoint = 0;"
                 "CREATE TABLE bare (key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(connection_, "INSERT OR REPLACE INTO bare VALUES ('key', ?1)", -1, &replace_,
                       nullptr);
  }
  ~BareSqlite() {
    sqlite3_finalize(replace_);
    sqlite3_close(connection_);
  }
  BareSqlite(const BareSqlite&) = delete;
  BareSqlite& operator=(const BareSqlite&) = delete;
  void replace(const std::string& value) {
    sqlite3_bind_text(replace_, 1, value.c_str(), -1, SQLITE_STATIC);
    sqlite3_step(replace_);
    sqlite3_reset(replace_);
  }

 private:
  sqlite3* connection_ = nullptr;
  sqlite3_stmt* replace_ = nullptr;
};

struct Costs {
  Series track, shouldShow, impression, trackBytes, impressionBytes;
};

/// Adds the median of each cost in one launch.
void measure(Costs& medians, int count) {
  static int number = 0;
  Costs costs;
  const auto with = [](Series& times, Series& bytes, const std::function<void()>& call) {
    const double before = bytesWritten();
    times.time(call);
    bytes.add(bytesWritten() - before);
  };
  auto& caps = FrequencyCappingManager::shared();
  auto& reports = ReportManager::shared();
  const std::string warmUp = identifier(0);
  reports.trackAction(warmUp, {BidReportAction::click});
  caps.trackImpression(warmUp);
  for (int i = 0; i < kTimes; ++i) {
    const std::string id = identifier(++number % count);
    with(costs.track, costs.trackBytes, [&] {
      reports.trackAction(id, {BidReportAction::videoQuarter, number});
    });
    costs.shouldShow.time([&] { caps.shouldShow({id, 100'000, 100'000}); });
    with(costs.impression, costs.impressionBytes, [&] { caps.trackImpression(id); });
  }
  for (const auto cost : {&Costs::track, &Costs::shouldShow, &Costs::impression, &Costs::trackBytes,
                          &Costs::impressionBytes})
    (medians.*cost).add((costs.*cost).median());
}

void run() {
  const Folder folder;
  std::map<int, Costs> costs;
  Series bare;
  for (const int count : {1, 10, 100, 1000, 100'000})
    fillStore(folder.file(std::to_string(count)), count);
  BareSqlite sqlite(folder.file("bare"));
  for (int round = 0; round < kRounds; ++round) {
    for (const int count : {1, 10, 100, 1000, 100'000}) {
      const Launch launch(folder.file(std::to_string(count)));
      measure(costs[count], count);
    }
    Series replacements;
    for (int i = 0; i < kTimes; ++i)
      replacements.time([&] { sqlite.replace(std::string(200, static_cast<char>('a' + i % 26))); });
    bare.add(replacements.median());
  }

  constexpr Target kFlat{.ratio = 1.5, .atLeast = {}};
  const auto name = [](const char* what, int count, const char* compared) {
    return what + std::string(" with ") + std::to_string(count) + " " + compared;
  };
  printRow("trackAction with 100 live reports, against one row in bare SQLite", "us",
           costs[100].track.median(), bare.median(), {.ratio = {}, .atLeast = {}, .plus = 40});
  for (const int count : {10, 100, 1000}) {
    printRow(name("trackAction", count, "live reports, against 1"), "us", costs[count].track,
             costs[1].track, kFlat);
    printRow(name("trackAction", count, "live reports, against 1: written"), "bytes",
             costs[count].trackBytes, costs[1].trackBytes, kFlat);
  }
  for (const int count : {1000, 100'000}) {
    printRow(name("shouldShow", count, "known plans, against 10"), "us", costs[count].shouldShow,
             costs[10].shouldShow, kFlat);
    printRow(name("impression", count, "known plans, against 10"), "us", costs[count].impression,
             costs[10].impression, kFlat);
    printRow(name("impression", count, "known plans, against 10: written"), "bytes",
             costs[count].impressionBytes, costs[10].impressionBytes, kFlat);
  }
}

}  // namespace
}  // namespace kva::bench

int main() { kva::bench::run(); }
