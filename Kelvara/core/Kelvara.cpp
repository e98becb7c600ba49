#include <Kelvara/Kelvara.h>

#include <utility>

#include <Kelvara/base/HostCallback.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/PrivacyManager.h>

namespace kva {

std::string Kelvara::sdkVersion() { return KELVARA_VERSION; }

bool Kelvara::isInitialized() { return SDKManager::shared().isInitialized(); }

void Kelvara::start(std::string appId, std::function<void(std::optional<Error>)> completion) {
  SDKManager::shared().start(appId,
                             [completion = std::move(completion)](std::optional<Error> error) {
                               const HostCallback callback;
                               if (completion) completion(std::move(error));
                             });
}

void Kelvara::setUserId(std::string userId) { SDKManager::shared().setUserId(std::move(userId)); }

void Kelvara::setUserConsent(bool granted) { PrivacyManager::shared().setUserConsent(granted); }

void Kelvara::setUserChild(bool isChild) { PrivacyManager::shared().setUserChild(isChild); }

void Kelvara::setSubjectToGDPR(bool isSubject) {
  PrivacyManager::shared().setSubjectToGDPR(isSubject);
}

void Kelvara::setSubjectToCCPA(bool isSubject) {
  PrivacyManager::shared().setSubjectToCCPA(isSubject);
}

}  // namespace kva
