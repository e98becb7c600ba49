#include <Kelvara/user/PrivacyManager.h>

#include <string_view>

#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Runtime.h>

namespace kva {
namespace {

constexpr std::string_view kWithheldIdentifier = "00000000-0000-0000-0000-000000000000";

const IdentifierManager& identifiers() { return *Runtime::current().platform().identifiers; }

}  // namespace

std::optional<ConsentStatus> consentStatusFromRawValue(int rawValue) {
  if (rawValue < -1 || rawValue > 1) return {};
  return static_cast<ConsentStatus>(rawValue);
}

std::optional<SubjectStatus> subjectStatusFromRawValue(int rawValue) {
  if (rawValue < -1 || rawValue > 2) return {};
  return static_cast<SubjectStatus>(rawValue);
}

PrivacyManager& PrivacyManager::shared() { return Runtime::current().get<PrivacyManager>(); }

void PrivacyManager::setUserConsent(bool isGranted) {
  state_.with([&](State& state) {
    state.consentStatus = isGranted ? ConsentStatus::granted : ConsentStatus::revoked;
  });
}

void PrivacyManager::setUserChild(bool isChild) {
  state_.with([&](State& state) { state.isUserChild = isChild; });
}

void PrivacyManager::setSubjectToGDPR(bool isSubject) {
  setSubject(SubjectStatus::gdpr, isSubject);
}

void PrivacyManager::setSubjectToCCPA(bool isSubject) {
  setSubject(SubjectStatus::ccpa, isSubject);
}

void PrivacyManager::setSubject(SubjectStatus regulation, bool isSubject) {
  state_.with([&](State& state) {
    if (isSubject)
      state.subjectStatus = regulation;
    else if (state.subjectStatus == SubjectStatus::unknown || state.subjectStatus == regulation)
      state.subjectStatus = SubjectStatus::none;
  });
}

int PrivacyManager::consent() const { return static_cast<int>(state_.get().consentStatus); }
int PrivacyManager::subjectToGDPR() const { return static_cast<int>(state_.get().subjectStatus); }
int PrivacyManager::subjectToCCPA() const { return static_cast<int>(state_.get().subjectStatus); }
bool PrivacyManager::isUserChild() const { return state_.get().isUserChild; }

bool PrivacyManager::isAdTrackingEnabled() const {
  if (const auto status = identifiers().trackingAuthorizationStatus())
    return status == IdentifierManager::AuthorizationStatus::authorized;
  return identifiers().isAdvertisingTrackingEnabled();
}

std::optional<std::string> PrivacyManager::idfaWithPrivacy() const {
  std::string idfa = identifiers().advertisingIdentifier();
  if (idfa == kWithheldIdentifier) return {};
  if (state_.get().consentStatus == ConsentStatus::granted) return idfa;
  return {};
}

std::optional<std::string> PrivacyManager::encryptedIDFA() const {
  if (const auto idfa = idfaWithPrivacy()) return md5Value(*idfa);
  return {};
}

}  // namespace kva
