#include <Kelvara/user/User.h>

#include <utility>

#include <nlohmann/json.hpp>

namespace kva {
namespace {

template <class T>
struct Field {
  T User::*value;
  const char* key;      ///< of the stored form
  const char* wireKey;  ///< of the form that is sent
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

}  // namespace

Json User::dictionaryValue() const {
  Json dictionary;
  for (const auto& field : kTexts) dictionary[field.wireKey] = this->*field.value;
  for (const auto& field : kNumbers) dictionary[field.wireKey] = this->*field.value;
  return dictionary;
}

Result<User> User::decode(const Json& json) {
  Reader in(json);
  User user;
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
