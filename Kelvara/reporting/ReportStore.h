#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/core/SharedSetting.h>
#include <Kelvara/reporting/BidReport.h>

namespace kva {

/// Bid reports by bid identifier, stored under one key of the user defaults as one JSON object. A
/// report is encoded only when it changes. Other processes use the same key: `persist` merges their
/// changes with this store's. Not thread-safe.
class ReportStore {
 public:
  /// Reads the stored reports. Malformed data counts as none.
  ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key);

  struct Entry {
    BidReport report;
    std::string member;  ///< the report's member of the JSON object, encoded
  };
  using Entries = std::map<std::string, Entry>;

  const Entries& entries() const { return reports_.value().entries; }
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
    Entries entries;

    static Reports decode(const Bytes& bytes);
    Bytes encoded() const;
    void apply(const Change& change);
    const BidReport* find(const std::string& bidId) const;
  };
  SharedSetting<Reports> reports_;
};

}  // namespace kva
