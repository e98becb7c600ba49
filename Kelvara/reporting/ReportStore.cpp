#include <Kelvara/reporting/ReportStore.h>

#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace kva {
ReportStore::ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key)
    : reports_(std::move(userDefaults), std::move(key)) {}

void ReportStore::set(BidReport report) {
  const BidReport* known = find(report.bidId);
  if (known && *known == report) return;
  auto from = known ? std::optional(*known) : std::nullopt;
  reports_.change({.from = std::move(from), .to = std::move(report)});
}

void ReportStore::merge(const ReportStore& other) {
  for (const auto& [bidId, report] : other.reports()) set(report);
}

void ReportStore::remove(const std::string& bidId) {
  if (const BidReport* known = find(bidId)) reports_.change({.from = *known, .to = {}});
}

void ReportStore::clear() {
  while (!reports().empty()) remove(reports().begin()->first);
}

void ReportStore::endFuture(double now) {
  std::vector<BidReport> ahead;
  for (const auto& [bidId, report] : reports())
    if (report.createdAt > now) ahead.push_back(report);
  for (auto& report : ahead) {
    report.createdAt = now;
    set(std::move(report));
  }
}

std::optional<ReportStore::Reports> ReportStore::Reports::decode(const JsonParts& parts) {
  Reports reports;
  for (const auto& [name, text] : parts.texts) {
    const auto json = parseJson(text);
    auto report = json ? BidReport::decode(*json) : failure(json.error());
    if (!report) return {};
    const std::string bidId = report->bidId;
    reports.byBid.emplace(bidId, *std::move(report));
  }
  return reports;
}

JsonParts ReportStore::Reports::parts() const {
  JsonParts parts{.kind = kKind, .texts = {}};
  for (const auto& [bidId, report] : byBid) parts.texts.emplace(bidId, jsonText(report.toJson()));
  return parts;
}

std::optional<std::string> ReportStore::Reports::part(const std::string& bidId) const {
  const BidReport* report = find(bidId);
  if (!report) return {};
  return jsonText(report->toJson());
}

void ReportStore::Reports::apply(const Change& change, std::set<std::string>& changed) {
  const std::string& bidId = (change.to ? *change.to : *change.from).bidId;
  changed.insert(bidId);
  const BidReport* found = find(bidId);
  const bool isUnchanged = found && change.from == *found;
  if (!change.to) {
    if (isUnchanged) byBid.erase(bidId);
    return;
  }
  BidReport report = *change.to;
  if (found && !isUnchanged) report.join(*found);
  byBid.insert_or_assign(bidId, std::move(report));
}

const BidReport* ReportStore::Reports::find(const std::string& bidId) const {
  const auto found = byBid.find(bidId);
  return found == byBid.end() ? nullptr : &found->second;
}

}  // namespace kva
