#include <Kelvara/user/CurrentUser.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/PrivacyManager.h>
#include <nlohmann/json.hpp>

namespace kva {
User currentUser() {
  return {.applicationId = SDKManager::shared().appId().value_or(""),
          .sdkVersion = Kelvara::sdkVersion(),
          .appVersion = SDKHelper::App::appVersion(),
          .platform = SDKHelper::Device::platform(),
          .osVersion = SDKHelper::Device::osVersion(),
          .bundleId = SDKHelper::App::bundleId(),
          .idfa = PrivacyManager::shared().idfaWithPrivacy().value_or(""),
          .deviceBrand = SDKHelper::Device::deviceBrand(),
          .deviceModel = SDKHelper::Device::deviceModel(),
          .connectionType = SDKHelper::Device::connectionType(),
          .gsm = SDKHelper::Device::carrierName(),
          .consent = PrivacyManager::shared().consent(),
          .subjectToGDPR = PrivacyManager::shared().subjectToGDPR(),
          .subjectToCCPA = PrivacyManager::shared().subjectToCCPA(),
          .country = SDKHelper::Device::country(),
          .language = SDKHelper::Device::language(),
          .timeZone = SDKHelper::Device::timezone()};
}

void save(const User& user) {
  try {
    userDefaults().set(SDKHelper::UserDefaultKeys::user, toBytes(user.toJson().dump()));
  } catch (const Json::exception&) {
    // A text of the host is not UTF-8. Nothing is stored, so the next launch sends an update.
  }
}

std::optional<User> lastUploadedUser() {
  const auto bytes = userDefaults().get<Bytes>(SDKHelper::UserDefaultKeys::user);
  if (!bytes) return {};
  const auto json = parseJson(asText(*bytes));
  if (!json) return {};
  auto user = User::decode(*json);
  return user ? std::optional(*std::move(user)) : std::nullopt;
}

}  // namespace kva
