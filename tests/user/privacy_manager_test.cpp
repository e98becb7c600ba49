#include <gtest/gtest.h>

#include <Kelvara/base/Digest.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/PrivacyManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using Authorization = IdentifierManager::AuthorizationStatus;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

class PrivacyState : public testing::Test {
 protected:
  std::vector<std::string> linesOf(const std::vector<Tester>& testers) {
    h.output.clear();
    admin.setTesters(testers);
    return h.output.lines();
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  PrivacyManager& privacy = PrivacyManager::shared();
  AdminManager& admin = AdminManager::shared();
};

TEST_F(PrivacyState, OneStatusStandsForBothRegulations) {
  constexpr auto gdpr = &PrivacyManager::setSubjectToGDPR;
  constexpr auto ccpa = &PrivacyManager::setSubjectToCCPA;
  using Step = std::pair<void (PrivacyManager::*)(bool), bool>;
  const std::pair<std::vector<Step>, int> cases[] = {
      {{}, -1},
      {{{gdpr, false}}, 0},
      {{{gdpr, true}, {gdpr, false}}, 0},
      {{{gdpr, true}, {ccpa, false}}, 1},
      {{{gdpr, true}, {ccpa, true}}, 2},
      {{{ccpa, true}, {gdpr, false}}, 2},
      {{{ccpa, true}, {ccpa, false}, {gdpr, true}}, 1},
  };
  for (const auto& [steps, expected] : cases) {
    PrivacyManager fresh;
    for (const auto& [set, isSubject] : steps) (fresh.*set)(isSubject);
    EXPECT_EQ(fresh.subjectToGDPR(), expected);
    EXPECT_EQ(fresh.subjectToCCPA(), expected);
  }
}

TEST_F(PrivacyState, TheIdentifierLeavesWithConsentOnly) {
  h.identifiers.set({kIdentifier, Authorization::denied, false});  // which has no say
  EXPECT_EQ(privacy.consent(), -1);
  EXPECT_EQ(privacy.idfaWithPrivacy(), std::nullopt);
  privacy.setUserConsent(true);
  EXPECT_EQ(privacy.consent(), 1);
  EXPECT_EQ(privacy.idfaWithPrivacy(), kIdentifier);
  h.identifiers.authorize("00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(privacy.idfaWithPrivacy(), std::nullopt);
  h.identifiers.authorize(kIdentifier);
  privacy.setUserConsent(false);
  EXPECT_EQ(privacy.consent(), 0);
  EXPECT_EQ(privacy.encryptedIDFA(), std::nullopt);
}

TEST_F(PrivacyState, ATestDeviceIsKnownByTheDigestOfAnIdentifierThatMayLeave) {
  using Lines = std::vector<std::string>;
  const std::string disabled =
      "<KVA> [I]: Advertising tracking disabled, turn on advertising tracking and get your IDFA to "
      "become tester.";
  const std::string hint = "<KVA> [I]: Send your IDFA to your account manager to become tester: ";
  const std::string known = "<KVA> [I]: This is a test device.";
  const Tester other{.testerId = "other", .isLogsEnabled = true};
  const Tester quiet{.testerId = md5Hex(kIdentifier), .isSandBoxEnabled = true};
  const Tester loud{.testerId = md5Hex(kIdentifier), .isLogsEnabled = true};

  EXPECT_EQ(linesOf({quiet}), Lines{disabled});
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(linesOf({quiet}), Lines{hint + "-"});
  privacy.setUserConsent(true);
  EXPECT_EQ(linesOf({other}), Lines{hint + kIdentifier});
  EXPECT_FALSE(admin.isTester());
  EXPECT_EQ(linesOf({other, quiet, loud}), Lines{known});
  EXPECT_TRUE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::i);
  EXPECT_EQ(linesOf({loud}), Lines{known});
  EXPECT_FALSE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::d);
  EXPECT_EQ(linesOf({}), Lines{}) << "it stays one when a later list has it not";
  EXPECT_EQ(admin.tester(), loud);
}

}  // namespace
}  // namespace kva
