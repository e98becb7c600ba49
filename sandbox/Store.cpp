#include "sandbox/Store.h"

#include <filesystem>
#include <random>

namespace kva::sandbox {
namespace {

constexpr const char* kSchema[] = {
    "PRAGMA journal_mode = WAL",
    "PRAGMA synchronous = NORMAL",
    "CREATE TABLE IF NOT EXISTS users (uid TEXT PRIMARY KEY, aid TEXT, record TEXT, updates INT)",
    "CREATE TABLE IF NOT EXISTS bids (bid TEXT PRIMARY KEY, uid TEXT, unit TEXT, status INT,"
    " plan TEXT, price INT)",
    "CREATE TABLE IF NOT EXISTS reports (bid TEXT PRIMARY KEY, time INT, imp INT, fts INT,"
    " dism INT, clck INT, comp INT, quar INT, received INT)",
    "CREATE TABLE IF NOT EXISTS tracks (record TEXT, plan TEXT)",
    "CREATE TABLE IF NOT EXISTS templates (id TEXT, version INT, html TEXT,"
    " PRIMARY KEY (id, version))",
};

std::string makeUUID() {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
  for (char& c : text) {
    if (c == 'x') c = kDigits[random() % 16];
  }
  return text;
}

BidRecord readBid(const Database::Row& row) {
  BidRecord bid{.bid = row.text(0), .uid = row.text(1), .adUnit = row.text(2)};
  bid.status = static_cast<BidRecord::Status>(row.integer(3));
  if (!row.isNull(4)) bid.plan = row.text(4);
  if (!row.isNull(5)) bid.clearingPrice = row.integer(5);
  return bid;
}

ReportRecord readReport(const Database::Row& row) {
  return {.bid = row.text(0),
          .bidKnown = row.integer(9) != 0,
          .impressionAt = row.integer(1),
          .impression = row.integer(2) != 0,
          .failToShow = row.integer(3) != 0,
          .dismissed = row.integer(4) != 0,
          .clicked = row.integer(5) != 0,
          .completed = row.integer(6) != 0,
          .quarter = row.integer(7),
          .received = row.integer(8)};
}

/// Creates the folder of `path` and returns `path`.
const std::string& prepared(const std::string& path) {
  std::error_code ignored;  // opening the file reports the problem
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  return path;
}

}  // namespace

Store::Store(const std::string& path) : database_(prepared(path)) {
  for (const char* table : kSchema) database_.run(table);
}

std::string Store::addUser(std::string_view aid, std::string_view record) {
  std::string uid = makeUUID();
  database_.run("INSERT INTO users VALUES (?, ?, ?, 0)", {uid, aid, record});
  return uid;
}

bool Store::hasUser(std::string_view aid, std::string_view uid) {
  return database_.exists("SELECT 1 FROM users WHERE uid = ? AND aid = ?", {uid, aid});
}

void Store::updateUser(std::string_view uid, std::string_view record) {
  database_.run("UPDATE users SET record = ?, updates = updates + 1 WHERE uid = ?", {record, uid});
}

std::string Store::addBid(std::string_view uid, std::string_view adUnit) {
  std::string bid = makeUUID();
  database_.run("INSERT INTO bids VALUES (?, ?, ?, 0, NULL, NULL)", {bid, uid, adUnit});
  return bid;
}

std::optional<BidRecord> Store::bid(std::string_view id) {
  std::optional<BidRecord> found;
  database_.run("SELECT bid, uid, unit, status, plan, price FROM bids WHERE bid = ?", {id},
                [&](const Database::Row& row) { found = readBid(row); });
  return found;
}

void Store::closeBid(const BidRecord& bid) {
  database_.run("UPDATE bids SET status = ?, price = ? WHERE bid = ?",
                {static_cast<std::int64_t>(bid.status), bid.clearingPrice.value_or(0), bid.bid});
  if (bid.plan) database_.run("UPDATE bids SET plan = ? WHERE bid = ?", {*bid.plan, bid.bid});
}

void Store::mergeReport(const ReportRecord& report) {
  database_.run(
      "INSERT INTO reports VALUES (?, ?, ?, ?, ?, ?, ?, ?, 1) ON CONFLICT (bid) DO UPDATE SET"
      " time = max(time, excluded.time), imp = imp | excluded.imp, fts = fts | excluded.fts,"
      " dism = dism | excluded.dism, clck = clck | excluded.clck, comp = comp | excluded.comp,"
      " quar = max(quar, excluded.quar), received = received + 1",
      {report.bid, report.impressionAt, std::int64_t{report.impression},
       std::int64_t{report.failToShow}, std::int64_t{report.dismissed},
       std::int64_t{report.clicked}, std::int64_t{report.completed}, report.quarter});
}

void Store::addTrack(std::string_view record, std::string_view plan) {
  database_.run("INSERT INTO tracks VALUES (?, ?)", {record, plan});
}

void Store::putTemplate(std::string_view id, std::int64_t version, std::string_view html) {
  database_.run("INSERT OR REPLACE INTO templates VALUES (?, ?, ?)", {id, version, html});
}

std::int64_t Store::newestTemplate(std::string_view id) {
  std::int64_t version = 0;
  database_.run("SELECT max(version) FROM templates WHERE id = ?", {id},
                [&](const Database::Row& row) { version = row.integer(0); });
  return version;
}

std::optional<std::string> Store::templateHtml(std::string_view id, std::int64_t version) {
  std::optional<std::string> html;
  database_.run("SELECT html FROM templates WHERE id = ? AND version = ?", {id, version},
                [&](const Database::Row& row) { html = row.text(0); });
  return html;
}

State Store::state() {
  State state;
  database_.run("SELECT uid, record, updates FROM users ORDER BY rowid", {},
                [&](const Database::Row& row) {
                  state.users.push_back({row.text(0), row.text(1), row.integer(2)});
                });
  database_.run("SELECT bid, uid, unit, status, plan, price FROM bids ORDER BY rowid", {},
                [&](const Database::Row& row) { state.bids.push_back(readBid(row)); });
  database_.run(
      "SELECT bid, time, imp, fts, dism, clck, comp, quar, received,"
      " EXISTS (SELECT 1 FROM bids WHERE bids.bid = reports.bid) FROM reports ORDER BY rowid",
      {}, [&](const Database::Row& row) { state.reports.push_back(readReport(row)); });
  database_.run("SELECT record, plan FROM tracks ORDER BY rowid", {},
                [&](const Database::Row& row) {
                  state.tracks.push_back({row.text(0), row.text(1)});
                });
  return state;
}

void Store::forget() {
  for (const char* table : {"users", "bids", "reports", "tracks", "templates"}) {
    database_.run((std::string("DELETE FROM ") + table).c_str());
  }
}

}  // namespace kva::sandbox
