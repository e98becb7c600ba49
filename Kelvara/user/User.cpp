#include <Kelvara/user/User.h>

#include <utility>

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/PrivacyManager.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

template <class T>
struct Field {
  T User::*value;
  const char* key;      ///< where the record is kept
  const char* wireKey;  ///< to the server
};

constexpr Field<std::string> kTexts[] = {
    {&User::applicationId, "applicationId", "aid"},
    {&User::sdkVersion, "sdkVersion", "sdkv"},
    {&User::appVersion, "appVersion", "appv"},
    {&User::platform, "platform", "pl"},
    {&User::osVersion, "osVersion", "osv"},
    {&User::bundleId, "bundleId", "pkg"},
    {&User::idfa, "idfa", "idfa"},
    {&User::deviceBrand, "deviceBrand", "dbra"},
    {&User::deviceModel, "deviceModel", "dmob"},
    {&User::connectionType, "connectionType", "conn"},
    {&User::gsm, "gsm", "gsm"},
    {&User::country, "country", "lcl"},
    {&User::language, "language", "lng"},
    {&User::timeZone, "timeZone", "tzn"},
};

constexpr Field<std::int64_t> kNumbers[] = {
    {&User::consent, "consent", "cnst"},
    {&User::subjectToGDPR, "subjectToGDPR", "gdpr"},
    {&User::subjectToCCPA, "subjectToCCPA", "ccpa"},
};

UserDefaults& userDefaults() { return *Runtime::current().platform().userDefaults; }

std::string currentIDFA() { return PrivacyManager::shared().idfaWithPrivacy().value_or(""); }

}  // namespace

User::User()
    : applicationId(SDKManager::shared().appId().value_or("")),
      sdkVersion(Kelvara::sdkVersion()),
      appVersion(SDKHelper::App::appVersion()),
      platform(SDKHelper::Device::platform()),
      osVersion(SDKHelper::Device::osVersion()),
      bundleId(SDKHelper::App::bundleId()),
      idfa(currentIDFA()),
      deviceBrand(SDKHelper::Device::deviceBrand()),
      deviceModel(SDKHelper::Device::deviceModel()),
      connectionType(SDKHelper::Device::connectionType()),
      gsm(SDKHelper::Device::carrierName()),
      consent(PrivacyManager::shared().consent()),
      subjectToGDPR(PrivacyManager::shared().subjectToGDPR()),
      subjectToCCPA(PrivacyManager::shared().subjectToCCPA()),
      country(SDKHelper::Device::country()),
      language(SDKHelper::Device::language()),
      timeZone(SDKHelper::Device::timezone()) {}

Json User::dictionaryValue() const {
  Json dictionary;
  for (const auto& field : kTexts) dictionary[field.wireKey] = this->*field.value;
  for (const auto& field : kNumbers) dictionary[field.wireKey] = this->*field.value;
  dictionary["idfa"] = currentIDFA();
  return dictionary;
}

void User::save() const {
  try {
    userDefaults().set(SDKHelper::UserDefaultKeys::user, toBytes(toJson().dump()));
  } catch (const Json::exception&) {
    // A text of the host's that is not UTF-8: nothing is kept, and the next launch sends an update.
  }
}

std::optional<User> User::lastUploaded() {
  const auto bytes = userDefaults().get<Bytes>(SDKHelper::UserDefaultKeys::user);
  if (!bytes) return {};
  const auto json = parseJson(asText(*bytes));
  if (!json) return {};
  auto user = decode(*json);
  return user ? std::optional(*std::move(user)) : std::nullopt;
}

Result<User> User::decode(const Json& json) {
  Reader in(json);
  User user{Blank()};
  for (const auto& field : kTexts) user.*field.value = in.required<std::string>(field.key);
  for (const auto& field : kNumbers) user.*field.value = in.required<std::int64_t>(field.key);
  return in.finish(std::move(user));
}

Json User::toJson() const {
  Json json;
  for (const auto& field : kTexts) json[field.key] = this->*field.value;
  for (const auto& field : kNumbers) json[field.key] = this->*field.value;
  return json;
}

}  // namespace kva
