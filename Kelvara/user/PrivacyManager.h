#pragma once

#include <optional>
#include <string>

#include <Kelvara/base/Guarded.h>

namespace kva {

enum class ConsentStatus : int { unknown = -1, revoked = 0, granted = 1 };
/// One status for both regulations: to set one replaces the other.
enum class SubjectStatus : int { unknown = -1, none = 0, gdpr = 1, ccpa = 2 };

std::optional<ConsentStatus> consentStatusFromRawValue(int rawValue);
std::optional<SubjectStatus> subjectStatusFromRawValue(int rawValue);

/// What the host has said about the user's privacy, and whether the advertising identifier may
/// leave the device. Nothing is stored: every launch begins with "unknown". Any thread.
class PrivacyManager {
 public:
  static PrivacyManager& shared();

  void setUserConsent(bool isGranted);
  void setUserChild(bool isChild);
  /// False takes back only this regulation's own status, or the unknown one.
  void setSubjectToGDPR(bool isSubject);
  void setSubjectToCCPA(bool isSubject);

  int consent() const;
  /// Both answer the one subject status; the server tells the regulation by the value.
  int subjectToGDPR() const;
  int subjectToCCPA() const;
  bool isUserChild() const;

  /// The user's decision on tracking, as the platform holds it; the SDK never asks for it.
  bool isAdTrackingEnabled() const;
  /// The advertising identifier; nothing when it is withheld or there is no consent.
  std::optional<std::string> idfaWithPrivacy() const;
  /// Its MD5 digest.
  std::optional<std::string> encryptedIDFA() const;

 private:
  struct State {
    ConsentStatus consentStatus = ConsentStatus::unknown;
    SubjectStatus subjectStatus = SubjectStatus::unknown;
    bool isUserChild = false;
  };
  void setSubject(SubjectStatus regulation, bool isSubject);

  Guarded<State> state_;
};

}  // namespace kva
