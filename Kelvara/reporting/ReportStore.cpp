#include <Kelvara/reporting/ReportStore.h>

#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace kva {
namespace {

std::string text(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

ReportStore::Entry entry(BidReport report) {
  std::string member = text(report.bidId) + ":" + text(report.toJson());
  return {.report = std::move(report), .member = std::move(member)};
}

}  // namespace

ReportStore::ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key)
    : reports_(std::move(userDefaults), std::move(key)) {}

void ReportStore::set(BidReport report) {
  const BidReport* known = find(report.bidId);
  if (known && *known == report) return;
  auto from = known ? std::optional(*known) : std::nullopt;
  reports_.change({.from = std::move(from), .to = std::move(report)});
}

void ReportStore::merge(const ReportStore& other) {
  for (const auto& [bidId, entry] : other.entries()) set(entry.report);
}

void ReportStore::remove(const std::string& bidId) {
  if (const BidReport* known = find(bidId)) reports_.change({.from = *known, .to = {}});
}

void ReportStore::clear() {
  while (!entries().empty()) remove(entries().begin()->first);
}

void ReportStore::endFuture(double now) {
  std::vector<BidReport> ahead;
  for (const auto& [bidId, entry] : entries())
    if (entry.report.createdAt > now) ahead.push_back(entry.report);
  for (auto& report : ahead) {
    report.createdAt = now;
    set(std::move(report));
  }
}

ReportStore::Reports ReportStore::Reports::decode(const Bytes& bytes) {
  const auto json = parseJson(asText(bytes));
  if (!json || !json->is_object()) return {};
  Reports reports;
  for (const auto& value : *json) {
    auto report = BidReport::decode(value);
    if (!report) return {};
    const std::string bidId = report->bidId;
    reports.entries.emplace(bidId, entry(*std::move(report)));
  }
  return reports;
}

void ReportStore::Reports::apply(const Change& change) {
  const std::string& bidId = (change.to ? *change.to : *change.from).bidId;
  const BidReport* found = find(bidId);
  const bool isUnchanged = found && change.from == *found;
  if (!change.to) {
    if (isUnchanged) entries.erase(bidId);
    return;
  }
  BidReport report = *change.to;
  if (found && !isUnchanged) report.join(*found);
  entries.insert_or_assign(bidId, entry(std::move(report)));
}

const BidReport* ReportStore::Reports::find(const std::string& bidId) const {
  const auto found = entries.find(bidId);
  return found == entries.end() ? nullptr : &found->second.report;
}

Bytes ReportStore::Reports::encoded() const {
  std::size_t size = 2;
  for (const auto& [bidId, entry] : entries) size += entry.member.size() + 1;
  Bytes bytes;
  bytes.reserve(size);
  const auto append = [&](std::string_view part) {
    const auto* begin = reinterpret_cast<const std::byte*>(part.data());
    bytes.insert(bytes.end(), begin, begin + part.size());
  };
  append("{");
  for (const auto& [bidId, entry] : entries) {
    if (bytes.size() > 1) append(",");
    append(entry.member);
  }
  append("}");
  return bytes;
}

}  // namespace kva
