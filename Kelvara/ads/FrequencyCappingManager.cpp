#include <Kelvara/ads/FrequencyCappingManager.h>

#include <algorithm>
#include <iterator>
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

double FrequencyCappingManager::FrequencyCappingMember::end() const {
  return std::max(lastHourlyImpressionAt + kHour, lastDailyImpressionAt + kDay);
}

std::string FrequencyCappingManager::FrequencyCappingMember::encoded() const {
  return jsonText({{"planId", planId},
                   {"hourlyImpressionCount", hourlyImpressionCount},
                   {"dailyImpressionCount", dailyImpressionCount},
                   {"lastHourlyImpressionAt", lastHourlyImpressionAt},
                   {"lastDailyImpressionAt", lastDailyImpressionAt}});
}

std::optional<FrequencyCappingManager::Members> FrequencyCappingManager::Members::decode(
    const JsonParts& stored) {
  Members members;
  for (const auto& [name, text] : stored.texts) {
    const auto json = parseJson(text);
    auto member = json ? FrequencyCappingMember::decode(*json) : failure(json.error());
    if (!member) return {};
    members.insert(JsonParts::positionOf(name), *std::move(member));
  }
  return members;
}

JsonParts FrequencyCappingManager::Members::parts() const {
  JsonParts parts{.kind = kKind, .texts = {}};
  for (const auto& [position, member] : byPosition_)
    parts.texts.emplace(JsonParts::nameOf(position), member.encoded());
  return parts;
}

std::optional<std::string> FrequencyCappingManager::Members::part(const std::string& name) const {
  const auto found = byPosition_.find(JsonParts::positionOf(name));
  if (found == byPosition_.end()) return {};
  return found->second.encoded();
}

void FrequencyCappingManager::Members::apply(const Change& change, std::set<std::string>& changed) {
  endFuture(change.time, changed);
  dropExpired(change.time, changed);
  if (!change.planId) return;
  const auto at = append(*change.planId);
  FrequencyCappingMember member = at->second;
  countImpression(member.hourlyImpressionCount, member.lastHourlyImpressionAt, kHour, change.time);
  countImpression(member.dailyImpressionCount, member.lastDailyImpressionAt, kDay, change.time);
  update(at, member);
  changed.insert(JsonParts::nameOf(at->first));
}

const FrequencyCappingManager::FrequencyCappingMember* FrequencyCappingManager::Members::find(
    const std::string& planId) const {
  const auto found = positionOfPlan_.find(planId);
  return found == positionOfPlan_.end() ? nullptr : &byPosition_.at(found->second);
}

FrequencyCappingManager::Members::ByPosition::iterator FrequencyCappingManager::Members::append(
    const std::string& planId) {
  if (const auto found = positionOfPlan_.find(planId); found != positionOfPlan_.end())
    return byPosition_.find(found->second);
  insert(byPosition_.empty() ? 0 : byPosition_.rbegin()->first + 1, {.planId = planId});
  return std::prev(byPosition_.end());
}

void FrequencyCappingManager::Members::insert(Position position, FrequencyCappingMember member) {
  // If a plan was stored twice, the first member counts.
  if (byPosition_.contains(position) || !positionOfPlan_.emplace(member.planId, position).second)
    return;
  byEnd_.emplace(member.end(), position);
  latest_ = std::max({latest_, member.lastHourlyImpressionAt, member.lastDailyImpressionAt});
  byPosition_.emplace(position, std::move(member));
}

void FrequencyCappingManager::Members::update(ByPosition::iterator at,
                                              const FrequencyCappingMember& member) {
  byEnd_.erase({at->second.end(), at->first});
  byEnd_.emplace(member.end(), at->first);
  latest_ = std::max({latest_, member.lastHourlyImpressionAt, member.lastDailyImpressionAt});
  at->second = member;
}

void FrequencyCappingManager::Members::endFuture(double time, std::set<std::string>& changed) {
  if (latest_ <= time) return;
  latest_ = time;
  for (auto at = byPosition_.begin(); at != byPosition_.end(); ++at) {
    FrequencyCappingMember member = at->second;
    if (!member.isAheadOf(time)) continue;
    member.lastHourlyImpressionAt = std::min(member.lastHourlyImpressionAt, time);
    member.lastDailyImpressionAt = std::min(member.lastDailyImpressionAt, time);
    update(at, member);
    changed.insert(JsonParts::nameOf(at->first));
  }
}

void FrequencyCappingManager::Members::dropExpired(double time, std::set<std::string>& changed) {
  for (int i = 0; i < kMostDropped && !byEnd_.empty() && byEnd_.begin()->first < time; ++i) {
    const auto at = byPosition_.find(byEnd_.begin()->second);
    changed.insert(JsonParts::nameOf(at->first));
    positionOfPlan_.erase(at->second.planId);
    byPosition_.erase(at);
    byEnd_.erase(byEnd_.begin());
  }
}

}  // namespace kva
