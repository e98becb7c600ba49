#pragma once

#include <map>
#include <memory>
#include <string>

#include <Kelvara/platform/UserDefaults.h>
#include <Kelvara/reporting/BidReport.h>

namespace kva {

/// Bid reports by bid identifier under one key of the user defaults, as one JSON object. Each
/// report is encoded when it changes, so that storing them all costs a join. Not thread-safe.
class ReportStore {
 public:
  /// Takes up what is stored; what cannot be read counts as nothing.
  ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key);

  struct Entry {
    BidReport report;
    std::string member;  ///< of the JSON object, encoded
  };
  using Entries = std::map<std::string, Entry>;

  const Entries& entries() const { return entries_; }
  /// Null when there is none.
  const BidReport* find(const std::string& bidId) const;

  void set(BidReport report);
  /// Everything that `other` holds, in place of what is here under the same bid.
  void merge(const ReportStore& other);
  /// Reports made after `now`, while the clock was ahead, count as made now: they still expire.
  void endFuture(double now);
  void remove(const std::string& bidId);
  void clear();

  /// Stored when it returns.
  void persist() const;

 private:
  std::shared_ptr<UserDefaults> userDefaults_;
  std::string key_;
  Entries entries_;
};

}  // namespace kva
