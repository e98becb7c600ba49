#pragma once

#include <optional>
#include <string>

#include <Kelvara/base/Guarded.h>

namespace kva {

enum class ConsentStatus : int { unknown = -1, revoked = 0, granted = 1 };
/// One status for both regulations. Setting one replaces the other.
enum class SubjectStatus : int { unknown = -1, none = 0, gdpr = 1, ccpa = 2 };

std::optional<ConsentStatus> consentStatusFromRawValue(int rawValue);
std::optional<SubjectStatus> subjectStatusFromRawValue(int rawValue);

/// Holds the user's privacy choices that the host has set, and decides whether the advertising
/// identifier may leave the device. Not stored: every launch begins with `unknown`. Any thread.
class PrivacyManager {
 public:
  static PrivacyManager& shared();

  void setUserConsent(bool isGranted);
  void setUserChild(bool isChild);
  /// False resets the status to `none`, unless it is the other regulation's.
  void setSubjectToGDPR(bool isSubject);
  void setSubjectToCCPA(bool isSubject);

  int consent() const;
  /// Both return the same subject status. Its value identifies the regulation to the server.
  int subjectToGDPR() const;
  int subjectToCCPA() const;
  bool isUserChild() const;

  /// The user's decision on tracking, read from the platform. The SDK never prompts for it.
  bool isAdTrackingEnabled() const;
  /// The advertising identifier; absent if it is withheld or there is no consent.
  std::optional<std::string> idfaWithPrivacy() const;
  /// The MD5 digest of `idfaWithPrivacy`.
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
