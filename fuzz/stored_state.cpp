// Any state of the user defaults, of an earlier launch or of another program.
// Input: one value per line: the letter of its key, the letter of its type (see below), the value.
// Two launches then use that state.

#include <charconv>
#include <limits>

#include <nlohmann/json.hpp>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/ads/Template.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/reporting/ReportManager.h>
#include <Kelvara/reporting/ReportStore.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/CurrentUser.h>
#include <Kelvara/user/ReferralTracking.h>
#include <fuzz/Device.h>
#include <fuzz/Target.h>

namespace kva::fuzz {
namespace {

using Keys = SDKHelper::UserDefaultKeys;

/// By letter, from "a" on.
constexpr const char* kKeys[] = {Keys::userId,
                                 Keys::user,
                                 Keys::frequencyCappingMembers,
                                 Keys::templates,
                                 Keys::reports,
                                 Keys::reportsForUpload,
                                 Keys::lastReportUploadedAt,
                                 Keys::deltaTime,
                                 Keys::lastUploadedIDFA,
                                 Keys::isTrackCampaignNeeded,
                                 Keys::isFirstCampaignTracked};

template <class T>
T number(std::string_view text) {
  T value{};
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::optional<UserDefaults::Value> valueOf(char type, std::string_view text) {
  if (type == 's') return std::string(text);
  if (type == 'b') return toBytes(text);
  if (type == 't') return text == "true";
  if (type == 'i') return number<std::int64_t>(text);
  if (type == 'd') return number<double>(text);
  return {};
}

/// A clock or a counter at the limit of 64 bits stops the process when it changes, as documented.
bool overflows(std::string_view key, const UserDefaults::Value& value) {
  constexpr std::int64_t limit = std::numeric_limits<std::int64_t>::max() / 2;
  if (const auto* integer = std::get_if<std::int64_t>(&value))
    return key == Keys::deltaTime && (*integer > limit || *integer < -limit);
  const auto* bytes = std::get_if<Bytes>(&value);
  if (!bytes || key != Keys::frequencyCappingMembers) return false;
  const auto json = parseJson(asText(*bytes));
  if (!json || !json->is_array()) return false;
  for (const auto& member : *json) {
    for (const auto& count : member)
      if (count.is_number() && count.get<double>() > static_cast<double>(limit)) return true;
  }
  return false;
}

void store(UserDefaults& defaults, std::string_view line) {
  if (line.size() < 2) return;
  const auto index = static_cast<std::size_t>(line[0] - 'a');
  auto value = valueOf(line[1], line.substr(2));
  if (index >= std::size(kKeys) || !value || overflows(kKeys[index], *value)) return;
  defaults.set(kKeys[index], *std::move(value));
}

Json stored(const UserDefaults& defaults, const char* key) {
  const auto bytes = defaults.get<Bytes>(key);
  expect(bytes.has_value(), "the SDK stores its state");
  auto json = parseJson(asText(*bytes));
  expect(json.has_value(), "stored state is JSON");
  return *std::move(json);
}

/// A launch that bids, fetches templates, and shows and reports an ad. `bidId` is a new bid.
void live(Device& device, const std::string& bidId) {
  Process process(device);
  device.time.advance(1);
  auto& caps = FrequencyCappingManager::shared();
  KVABidLoader::loadBid("0b6f3f0e-1d6c-4f6e-8a0e-5a0c6b1d2e3f", KVABidType::rewarded,
                        [](auto, const auto&) {});
  int templates = 0;
  for (const char* id : {"template", "other"})
    TemplateManager::shared().templateFor(id, [&](const auto& found) { templates += !!found; });
  device.time.advance(1);
  expect(templates == 2, "templates come from the server or from the store");

  caps.trackImpression("plan");
  expect(caps.shouldRequestBid(bidId), "a new bid can be used");
  for (auto kind : {BidReportAction::impression, BidReportAction::click}) {
    ReportManager::shared().trackAction(bidId, {kind});
    const ReportStore reports(device.platform().userDefaults, Keys::reports);
    const BidReport* report = reports.find(bidId);
    expect(report && report->isShown, "a tracked action can be read again at once");
  }
  ReportManager::shared().trackAction(bidId, {BidReportAction::dismiss});
  device.time.advance(10);
}

void checkState(Device& device) {
  Runtime runtime(device.platform());
  expect(AnalyticsManager::shared().isRegistered(), "a registered user stays registered");
  expect(lastUploadedUser().has_value(), "the user record can be read again");
  expect(ReferralTracking::shared().isFirstCampaignTracked(), "a tracked campaign stays tracked");
  const UserDefaults& defaults = device.defaults;
  const Json caps = stored(defaults, Keys::frequencyCappingMembers);
  bool hasPlan = false;
  for (const auto& member : caps) hasPlan |= member.at("planId") == "plan";
  expect(hasPlan, "an impression stays counted");
  const Json templates = stored(defaults, Keys::templates);
  for (const auto& element : templates)
    expect(Template::decode(element).has_value(), "a kept template can be read again");
  for (const auto& element : stored(defaults, Keys::reports))
    expect(BidReport::decode(element).has_value(), "a kept report can be read again");
}

}  // namespace
}  // namespace kva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kva;
  fuzz::Device device;
  auto rest = fuzz::text(data, size);
  while (!rest.empty()) fuzz::store(device.defaults, fuzz::cut(rest, "\n"));
  fuzz::live(device, "77777777-0000-4000-8000-000000000001");
  fuzz::live(device, "77777777-0000-4000-8000-000000000002");
  fuzz::checkState(device);
  return 0;
}
