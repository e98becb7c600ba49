#include <Kelvara/ads/FrequencyCappingManager.h>

#include <algorithm>

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

/// Counts one impression in the window that began at `windowBegan`, or in a new one.
void countImpression(std::int64_t& count, double& windowBegan, double windowLength, double now) {
  if (__builtin_add_overflow(count, 1, &count)) fatal("an impression count beyond 64 bits");
  const double windowEnd = windowBegan + windowLength;
  if (windowBegan == 0 || windowEnd < now) windowBegan = now;
  if (windowEnd < now) count = 1;
}

}  // namespace

FrequencyCappingManager& FrequencyCappingManager::shared() {
  return Runtime::current().get<FrequencyCappingManager>();
}

FrequencyCappingManager::FrequencyCappingManager()
    : store_(Runtime::current().platform().userDefaults),
      state_({.fcMembers = Members(deserializeMembers(*Runtime::current().platform().userDefaults)),
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

  const FrequencyCappingMember member = memberFor(plan.planId);
  if (member.lastHourlyImpressionAt == 0 && member.lastDailyImpressionAt == 0) return true;

  const double time = deviceClock().now();
  if (plan.frequencyCapHourly != 0 && member.lastHourlyImpressionAt != 0 &&
      time < member.lastHourlyImpressionAt + kHour &&
      plan.frequencyCapHourly <= member.hourlyImpressionCount)
    return false;
  // An hour here too, on purpose: the daily cap holds back in the first hour of the day's window
  // alone.
  if (plan.frequencyCapDaily != 0 && member.lastDailyImpressionAt != 0 &&
      time < member.lastDailyImpressionAt + kHour &&
      plan.frequencyCapDaily <= member.dailyImpressionCount)
    return false;
  return true;
}

void FrequencyCappingManager::trackImpression(const std::optional<std::string>& planId) {
  if (!planId) return;
  state_.with([&](State& state) {
    const auto* found = state.fcMembers.find(*planId);
    auto member = found ? *found : FrequencyCappingMember{.planId = *planId};
    const double time = deviceClock().now();
    member.endFuture(time);
    countImpression(member.hourlyImpressionCount, member.lastHourlyImpressionAt, kHour, time);
    countImpression(member.dailyImpressionCount, member.lastDailyImpressionAt, kDay, time);
    state.fcMembers.put(member);
  });
  serializeMembers();
}

bool FrequencyCappingManager::shouldRequestBid(const std::string& bidId) {
  return state_.with([&](State& state) { return state.lastUsedBidResponses.insert(bidId).second; });
}

void FrequencyCappingManager::trackBidUsed(const std::string& bidId) {
  state_.with([&](State& state) { state.lastUsedBidResponses.insert(bidId); });
}

FrequencyCappingManager::FrequencyCappingMember FrequencyCappingManager::memberFor(
    const std::string& planId) {
  bool isChanged = false;
  auto member = state_.with([&](State& state) {
    const auto* found = state.fcMembers.find(planId);
    auto current = found ? *found : FrequencyCappingMember{.planId = planId};
    const bool isCorrected = current.endFuture(deviceClock().now());
    isChanged = !found || isCorrected;
    if (isChanged) state.fcMembers.put(current);
    return current;
  });
  if (isChanged) serializeMembers();
  return member;
}

bool FrequencyCappingManager::FrequencyCappingMember::endFuture(double now) {
  if (lastHourlyImpressionAt <= now && lastDailyImpressionAt <= now) return false;
  lastHourlyImpressionAt = std::min(lastHourlyImpressionAt, now);
  lastDailyImpressionAt = std::min(lastDailyImpressionAt, now);
  return true;
}

void FrequencyCappingManager::serializeMembers() {
  store_.with([&](const std::shared_ptr<UserDefaults>& store) {
    store->set(SDKHelper::UserDefaultKeys::frequencyCappingMembers,
               state_.with([](const State& state) { return state.fcMembers.encoded(); }));
  });
}

std::vector<FrequencyCappingManager::FrequencyCappingMember>
FrequencyCappingManager::deserializeMembers(const UserDefaults& defaults) {
  const auto bytes = defaults.get<Bytes>(SDKHelper::UserDefaultKeys::frequencyCappingMembers);
  if (!bytes) return {};
  const auto json = parseJson(asText(*bytes));
  if (!json || !json->is_array()) return {};
  std::vector<FrequencyCappingMember> members;
  for (const auto& element : *json) {
    auto member = FrequencyCappingMember::decode(element);
    if (!member) return {};
    members.push_back(*std::move(member));
  }
  return members;
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

FrequencyCappingManager::Members::Members(const std::vector<FrequencyCappingMember>& stored) {
  for (const auto& member : stored) append(member);
}

const FrequencyCappingManager::FrequencyCappingMember* FrequencyCappingManager::Members::find(
    const std::string& planId) const {
  const auto found = indexOfPlan_.find(planId);
  return found == indexOfPlan_.end() ? nullptr : &entries_[found->second].member;
}

void FrequencyCappingManager::Members::put(const FrequencyCappingMember& member) {
  const auto found = indexOfPlan_.find(member.planId);
  if (found == indexOfPlan_.end()) return append(member);
  entries_[found->second] = {member, member.encoded()};
}

void FrequencyCappingManager::Members::append(const FrequencyCappingMember& member) {
  indexOfPlan_.emplace(member.planId, entries_.size());  // the first of a plan is the plan's
  entries_.push_back({member, member.encoded()});
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

}  // namespace kva
