#include <Kelvara/reporting/ReportStore.h>

#include <optional>
#include <string_view>
#include <utility>

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

std::optional<ReportStore::Entries> decoded(const Bytes& bytes) {
  auto json = parseJson(asText(bytes));
  if (!json || !json->is_object()) return {};
  ReportStore::Entries entries;
  for (const auto& value : *json) {
    auto report = BidReport::decode(value);
    if (!report) return {};
    const std::string bidId = report->bidId;
    entries.emplace(bidId, entry(*std::move(report)));
  }
  return entries;
}

}  // namespace

ReportStore::ReportStore(std::shared_ptr<UserDefaults> userDefaults, std::string key)
    : userDefaults_(std::move(userDefaults)), key_(std::move(key)) {
  if (auto stored = userDefaults_->get<Bytes>(key_))
    entries_ = decoded(*stored).value_or(Entries());
}

const BidReport* ReportStore::find(const std::string& bidId) const {
  auto found = entries_.find(bidId);
  return found == entries_.end() ? nullptr : &found->second.report;
}

void ReportStore::set(BidReport report) {
  const std::string bidId = report.bidId;
  entries_.insert_or_assign(bidId, entry(std::move(report)));
}

void ReportStore::merge(const ReportStore& other) {
  for (const auto& [bidId, entry] : other.entries_) entries_.insert_or_assign(bidId, entry);
}

void ReportStore::endFuture(double now) {
  for (auto& [bidId, stored] : entries_) {
    if (stored.report.createdAt <= now) continue;
    stored.report.createdAt = now;
    stored = entry(std::move(stored.report));
  }
}

void ReportStore::remove(const std::string& bidId) { entries_.erase(bidId); }

void ReportStore::clear() { entries_.clear(); }

void ReportStore::persist() const {
  std::size_t size = 2;
  for (const auto& [bidId, entry] : entries_) size += entry.member.size() + 1;
  Bytes bytes;
  bytes.reserve(size);
  const auto append = [&](std::string_view part) {
    const auto* begin = reinterpret_cast<const std::byte*>(part.data());
    bytes.insert(bytes.end(), begin, begin + part.size());
  };
  append("{");
  for (const auto& [bidId, entry] : entries_) {
    if (bytes.size() > 1) append(",");
    append(entry.member);
  }
  append("}");
  userDefaults_->set(key_, std::move(bytes));
}

}  // namespace kva
