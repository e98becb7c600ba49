#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <Kelvara/core/SharedSetting.h>
#include <Kelvara/reporting/BidReport.h>

namespace kva {

/// Bid reports by bid identifier, stored under one key of the user defaults as one JSON object. A
/// change encodes and writes only its own report. Other processes use the same key: `persist`
/// merges their changes with this store's. Not thread-safe.
class ReportStore {
 public:
  /// Reads the stored reports. Malformed data counts as none.
  ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key);

  using ByBid = std::map<std::string, BidReport>;
  const ByBid& reports() const { return reports_.value().byBid; }
  /// Null if there is none.
  const BidReport* find(const std::string& bidId) const { return reports_.value().find(bidId); }
  /// Reads the changes that other processes have stored.
  void refresh() { reports_.refresh(); }

  void set(BidReport report);
  /// Copies every report of `other`. It replaces one with the same bid.
  void merge(const ReportStore& other);
  /// Sets creation times after `now` to `now`, so that reports made while the clock was ahead
  /// expire.
  void endFuture(double now);
  /// Removes the report, unless another process has changed it since the last `refresh`.
  void remove(const std::string& bidId);
  void clear();

  /// Stores all changes. Writes nothing if there are none. If the store cannot be written, the next
  /// call stores them.
  void persist() { reports_.store(); }

 private:
  struct Reports {
    struct Change {
      std::optional<BidReport> from, to;  ///< no `from`: added; no `to`: removed
    };
    static constexpr auto kKind = JsonParts::Kind::object;
    ByBid byBid;

    static std::optional<Reports> decode(const JsonParts& parts);
    JsonParts parts() const;
    std::optional<std::string> part(const std::string& bidId) const;
    void apply(const Change& change, std::set<std::string>& changed);
    const BidReport* find(const std::string& bidId) const;
  };
  SharedSetting<Reports> reports_;
};

}  // namespace kva
