#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/Database.h"
#include "sandbox/State.h"

namespace kva::sandbox {

/// The server's state in SQLite. For one thread at a time.
class Store {
 public:
  explicit Store(const std::string& path);

  std::string addUser(std::string_view aid, std::string_view record);
  bool hasUser(std::string_view aid, std::string_view uid);
  void updateUser(std::string_view uid, std::string_view record);

  std::string addBid(std::string_view uid, std::string_view adUnit);
  std::optional<BidRecord> bid(std::string_view id);
  void closeBid(const BidRecord& bid);

  /// Merges one report into the bid's report: no flag returns to false, no number decreases.
  void mergeReport(const ReportRecord& report);
  void addTrack(std::string_view record, std::string_view plan);

  void putTemplate(std::string_view id, std::int64_t version, std::string_view html);
  std::int64_t newestTemplate(std::string_view id);  ///< 0 when there is none
  std::optional<std::string> templateHtml(std::string_view id, std::int64_t version);

  State state();
  void forget();

  std::optional<std::string> takeError() { return database_.takeError(); }
  void fail(std::string what) { database_.fail(std::move(what)); }

 private:
  Database database_;
};

}  // namespace kva::sandbox
