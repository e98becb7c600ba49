#include <Kelvara/ads/FrequencyCappingManager.h>

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>

namespace kva {
namespace {

constexpr double kHour = 3600;
constexpr double kDay = 86400;

const Clock& deviceClock() { return *Runtime::current().platform().clock; }

/// Counts one impression in the window that began at `windowBegan`. Begins a new window if that one
/// is over.
void countImpression(std::int64_t& count, double& windowBegan, double windowLength, double now) {
  if (__builtin_add_overflow(count, 1, &count)) fatal("an impression count exceeds 64 bits");
  const double windowEnd = windowBegan + windowLength;
  if (windowBegan == 0 || windowEnd < now) windowBegan = now;
  if (windowEnd < now) count = 1;
}

}  // namespace

FrequencyCappingManager& FrequencyCappingManager::shared() {
  return Runtime::current().get<FrequencyCappingManager>();
}

FrequencyCappingManager::FrequencyCappingManager()
    : state_({.fcMembers = {Runtime::current().platform().userDefaults,
                            SDKHelper::UserDefaultKeys::frequencyCappingMembers},
              .lastNofills = {},
              .lastUsedBidResponses = {}}) {}

Result<void> FrequencyCappingManager::shouldRequestAdUnit(const std::string& adUnit) const {
  const auto lastNofill = state_.with([&](const State& state) -> std::optional<double> {
    const auto found = state.lastNofills.find(adUnit);
    return found == state.lastNofills.end() ? std::nullopt : std::optional(found->second);
  });
  if (!lastNofill) return {};

  const auto application = SDKManager::shared().application();
  if (!application)
    return failure(SDKHelper::Error::error(KVAErrorCodes::unknown, "Unknown error."));

  const auto elapsed = static_cast<std::int64_t>(deviceClock().monotonicNow() - *lastNofill);
  const std::int64_t sleepOnNofill = application->setting.sleepOnNofill;
  if (sleepOnNofill < elapsed) return {};

  return failure(SDKHelper::Error::error(
      KVAErrorCodes::requestTooSoon,
      "Wait " + std::to_string(sleepOnNofill - elapsed) + " seconds for ad request."));
}

void FrequencyCappingManager::trackNofill(const std::string& adUnit) {
  state_.with([&](State& state) { state.lastNofills[adUnit] = deviceClock().monotonicNow(); });
}

bool FrequencyCappingManager::shouldShow(const Plan& plan) {
  if (plan.frequencyCapHourly == 0 && plan.frequencyCapDaily == 0) return true;

  const double time = deviceClock().now();
  const auto member = state_.with([&](State& state) {
    state.fcMembers.refresh();
    const auto* found = state.fcMembers.value().find(plan.planId);
    if (found && found->isAheadOf(time)) {
      state.fcMembers.change({{}, time});
      state.fcMembers.store();
      found = state.fcMembers.value().find(plan.planId);
    }
    return found ? *found : FrequencyCappingMember{};
  });
  if (member.lastHourlyImpressionAt == 0 && member.lastDailyImpressionAt == 0) return true;

  if (plan.frequencyCapHourly != 0 && member.lastHourlyImpressionAt != 0 &&
      time < member.lastHourlyImpressionAt + kHour &&
      plan.frequencyCapHourly <= member.hourlyImpressionCount)
    return false;
  // An hour here too, on purpose: the daily cap blocks only in the first hour of the day's window.
  if (plan.frequencyCapDaily != 0 && member.lastDailyImpressionAt != 0 &&
      time < member.lastDailyImpressionAt + kHour &&
      plan.frequencyCapDaily <= member.dailyImpressionCount)
    return false;
  return true;
}

void FrequencyCappingManager::trackImpression(const std::optional<std::string>& planId) {
  if (!planId) return;
  state_.with([&](State& state) {
    state.fcMembers.change({*planId, deviceClock().now()});
    state.fcMembers.store();
  });
}

bool FrequencyCappingManager::shouldRequestBid(const std::string& bidId) {
  return state_.with([&](State& state) { return state.lastUsedBidResponses.insert(bidId).second; });
}

void FrequencyCappingManager::trackBidUsed(const std::string& bidId) {
  state_.with([&](State& state) { state.lastUsedBidResponses.insert(bidId); });
}

bool FrequencyCappingManager::FrequencyCappingMember::isAheadOf(double time) const {
  return lastHourlyImpressionAt > time || lastDailyImpressionAt > time;
}

Result<FrequencyCappingManager::FrequencyCappingMember>
FrequencyCappingManager::FrequencyCappingMember::decode(const Json& json) {
  Reader in(json);
  FrequencyCappingMember member{
      .planId = in.required<std::string>("planId"),
      .hourlyImpressionCount = in.required<std::int64_t>("hourlyImpressionCount"),
      .dailyImpressionCount = in.required<std::int64_t>("dailyImpressionCount"),
      .lastHourlyImpressionAt = in.required<double>("lastHourlyImpressionAt"),
      .lastDailyImpressionAt = in.required<double>("lastDailyImpressionAt")};
  return in.finish(std::move(member));
}

std::string FrequencyCappingManager::FrequencyCappingMember::encoded() const {
  const Json json = {{"planId", planId},
                     {"hourlyImpressionCount", hourlyImpressionCount},
                     {"dailyImpressionCount", dailyImpressionCount},
                     {"lastHourlyImpressionAt", lastHourlyImpressionAt},
                     {"lastDailyImpressionAt", lastDailyImpressionAt}};
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

FrequencyCappingManager::Members FrequencyCappingManager::Members::decode(const Bytes& bytes) {
  const auto json = parseJson(asText(bytes));
  if (!json || !json->is_array()) return {};
  Members members;
  for (const auto& element : *json) {
    auto member = FrequencyCappingMember::decode(element);
    if (!member) return {};
    members.append(*std::move(member));
  }
  return members;
}

Bytes FrequencyCappingManager::Members::encoded() const {
  std::string text = "[";
  for (const auto& entry : entries_) {
    if (text.size() > 1) text += ',';
    text += entry.encoded;
  }
  text += ']';
  return toBytes(text);
}

void FrequencyCappingManager::Members::apply(const Change& change) {
  endFuture(change.time);
  dropExpired(change.time);
  if (!change.planId) return;
  if (!find(*change.planId)) append({.planId = *change.planId});
  auto& [member, encoded] = entries_[indexOfPlan_.at(*change.planId)];
  countImpression(member.hourlyImpressionCount, member.lastHourlyImpressionAt, kHour, change.time);
  countImpression(member.dailyImpressionCount, member.lastDailyImpressionAt, kDay, change.time);
  encoded = member.encoded();
}

const FrequencyCappingManager::FrequencyCappingMember* FrequencyCappingManager::Members::find(
    const std::string& planId) const {
  const auto found = indexOfPlan_.find(planId);
  return found == indexOfPlan_.end() ? nullptr : &entries_[found->second].member;
}

void FrequencyCappingManager::Members::append(FrequencyCappingMember member) {
  indexOfPlan_.emplace(member.planId, entries_.size());  // if stored twice, the first counts
  std::string encoded = member.encoded();
  entries_.push_back({std::move(member), std::move(encoded)});
}

void FrequencyCappingManager::Members::endFuture(double time) {
  for (auto& [member, encoded] : entries_) {
    if (!member.isAheadOf(time)) continue;
    member.lastHourlyImpressionAt = std::min(member.lastHourlyImpressionAt, time);
    member.lastDailyImpressionAt = std::min(member.lastDailyImpressionAt, time);
    encoded = member.encoded();
  }
}

void FrequencyCappingManager::Members::dropExpired(double time) {
  const auto dropped = std::erase_if(entries_, [time](const Entry& entry) {
    return entry.member.lastHourlyImpressionAt + kHour < time &&
           entry.member.lastDailyImpressionAt + kDay < time;
  });
  if (dropped == 0) return;
  indexOfPlan_.clear();
  for (std::size_t i = 0; i < entries_.size(); ++i)
    indexOfPlan_.emplace(entries_[i].member.planId, i);
}

}  // namespace kva
