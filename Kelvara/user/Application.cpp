#include <Kelvara/user/Application.h>

#include <optional>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace kva {
namespace {

/// Absent if one of the names is unknown.
std::optional<std::vector<AdType>> adTypes(const std::vector<std::string>& names) {
  std::vector<AdType> types;
  for (const auto& name : names) {
    const auto type = adTypeFromRawValue(name);
    if (!type) return {};
    types.push_back(*type);
  }
  return types;
}

}  // namespace

Result<ApplicationSetting> ApplicationSetting::decode(const Json& json) {
  Reader in(json);
  ApplicationSetting setting;
  if (auto period = in.optional<std::int64_t>("dip")) setting.statsSendPeriod = *period / 100;
  if (auto seconds = in.optional<std::int64_t>("nfsp")) setting.sleepOnNofill = *seconds / 100;
  if (auto isMuted = in.optional<bool>("sndm")) setting.isSoundMuted = *isMuted;
  return in.finish(setting);
}

Json ApplicationSetting::toJson() const {
  return {{"dip", statsSendPeriod}, {"nfsp", sleepOnNofill}, {"sndm", isSoundMuted}};
}

Result<Application> Application::decode(const Json& json) {
  static const URL nowhere = *URL::parse("about:blank");
  Reader in(json);
  Application application{
      .applicationId = in.required<std::string>("aid"),
      .testers = in.optionalList<Tester>("tids").value_or(std::vector<Tester>()),
      .blockedAdTypes = in.optional<std::vector<std::string>>("btyp").and_then(adTypes).value_or(
          std::vector<AdType>()),
      .blockedAds = in.optional("bads", std::vector<std::string>()),
      .templateVersions = in.optional("tmpv", std::map<std::string, std::int64_t>()),
      .hasCampaign = in.optional("hasc", false),
      .privacyPolicy = in.requiredAs<URL, std::string>("pp", URL::parse, nowhere),
      .setting = in.optional("sett", ApplicationSetting())};
  return in.finish(std::move(application));
}

Json Application::toJson() const {
  Json json = {{"aid", applicationId},
               {"tids", Json::array()},
               {"btyp", Json::array()},
               {"bads", blockedAds},
               {"tmpv", templateVersions},
               {"hasc", hasCampaign},
               {"pp", privacyPolicy.absoluteString()},
               {"sett", setting.toJson()}};
  for (const auto& tester : testers) json["tids"].push_back(tester.toJson());
  for (const AdType type : blockedAdTypes) json["btyp"].push_back(std::string(rawValue(type)));
  return json;
}

}  // namespace kva
