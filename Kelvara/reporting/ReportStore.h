#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/core/SharedSetting.h>
#include <Kelvara/reporting/BidReport.h>

namespace kva {

/// Bid reports by bid identifier under one key of the user defaults, as one JSON object. Each
/// report is encoded when it changes, so that storing them all costs a join. Other processes keep
/// theirs under the same key: `persist` joins both. Not thread-safe.
class ReportStore {
 public:
  /// Takes up what is stored; what cannot be read counts as nothing.
  ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key);

  struct Entry {
    BidReport report;
    std::string member;  ///< of the JSON object, encoded
  };
  using Entries = std::map<std::string, Entry>;

  const Entries& entries() const { return reports_.value().entries; }
  /// Null when there is none.
  const BidReport* find(const std::string& bidId) const { return reports_.value().find(bidId); }
  /// Takes up what other processes have stored.
  void refresh() { reports_.refresh(); }

  void set(BidReport report);
  /// Everything that `other` holds, in place of what is here under the same bid.
  void merge(const ReportStore& other);
  /// Reports made after `now`, while the clock was ahead, count as made now: they still expire.
  void endFuture(double now);
  /// The report as it is known here: one that another process has changed since stays.
  void remove(const std::string& bidId);
  void clear();

  /// Stored when it returns; writes nothing when nothing has changed.
  void persist() { reports_.store(); }

 private:
  struct Reports {
    struct Change {
      std::optional<BidReport> from, to;  ///< one of them may be missing
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
