#include <gtest/gtest.h>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/platform/Digest.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/PrivacyManager.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using Authorization = IdentifierManager::AuthorizationStatus;

constexpr const char* kIdentifier = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
constexpr const char* kWithheld = "00000000-0000-0000-0000-000000000000";

class Privacy : public testing::Test {
 protected:
  headless::Headless h;
  Runtime runtime{h.platform()};
  PrivacyManager& privacy = PrivacyManager::shared();
};

TEST(PrivacyStatus, HasOnlyItsOwnRawValues) {
  for (int raw = -3; raw <= 4; ++raw) {
    EXPECT_EQ(consentStatusFromRawValue(raw).has_value(), raw >= -1 && raw <= 1) << raw;
    EXPECT_EQ(subjectStatusFromRawValue(raw).has_value(), raw >= -1 && raw <= 2) << raw;
  }
}

TEST_F(Privacy, OneStatusStandsForBothRegulations) {
  enum Regulation { gdpr, ccpa };
  using Step = std::pair<Regulation, bool>;
  const std::pair<std::vector<Step>, int> cases[] = {
      {{}, -1},
      {{{gdpr, false}}, 0},
      {{{ccpa, false}}, 0},
      {{{gdpr, true}}, 1},
      {{{gdpr, true}, {gdpr, false}}, 0},
      {{{gdpr, true}, {ccpa, false}}, 1},
      {{{gdpr, true}, {ccpa, true}}, 2},
      {{{ccpa, true}, {gdpr, false}}, 2},
      {{{ccpa, true}, {ccpa, false}, {gdpr, true}}, 1},
  };
  for (const auto& [steps, expected] : cases) {
    PrivacyManager fresh;
    for (const auto& [regulation, value] : steps)
      regulation == gdpr ? fresh.setSubjectToGDPR(value) : fresh.setSubjectToCCPA(value);
    EXPECT_EQ(fresh.subjectToGDPR(), expected);
    EXPECT_EQ(fresh.subjectToCCPA(), expected);
  }
}

TEST_F(Privacy, TheIdentifierLeavesWithConsentOnly) {
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(privacy.consent(), -1);
  EXPECT_EQ(privacy.idfaWithPrivacy(), std::nullopt);
  privacy.setUserConsent(true);
  EXPECT_EQ(privacy.consent(), 1);
  EXPECT_EQ(privacy.idfaWithPrivacy(), kIdentifier);
  EXPECT_EQ(privacy.encryptedIDFA(), md5Hex(kIdentifier));

  // Neither the regulations nor the child nor the tracking switch has a say.
  privacy.setSubjectToGDPR(true);
  privacy.setUserChild(true);
  h.identifiers.set({kIdentifier, Authorization::denied, false});
  EXPECT_EQ(privacy.idfaWithPrivacy(), kIdentifier);

  h.identifiers.authorize(kWithheld);
  EXPECT_EQ(privacy.idfaWithPrivacy(), std::nullopt);
  h.identifiers.authorize(kIdentifier);
  privacy.setUserConsent(false);
  EXPECT_EQ(privacy.consent(), 0);
  EXPECT_EQ(privacy.idfaWithPrivacy(), std::nullopt);
  EXPECT_EQ(privacy.encryptedIDFA(), std::nullopt);
}

TEST_F(Privacy, TheOlderTrackingSwitchCountsOnlyWithoutAnAuthorization) {
  const struct {
    std::optional<Authorization> status;
    bool older, expected;
  } cases[] = {{Authorization::authorized, false, true},
               {Authorization::notDetermined, true, false},
               {Authorization::restricted, true, false},
               {Authorization::denied, true, false},
               {std::nullopt, true, true},
               {std::nullopt, false, false}};
  for (const auto& [status, older, expected] : cases) {
    h.identifiers.set({kIdentifier, status, older});
    EXPECT_EQ(privacy.isAdTrackingEnabled(), expected);
  }
}

class TestDevices : public Privacy {
 protected:
  static constexpr const char* kDisabled =
      "<KVA> [I]: Advertising tracking disabled, turn on advertising tracking and get your IDFA to "
      "become tester.";
  static constexpr const char* kHint =
      "<KVA> [I]: Send your IDFA to your account manager to become tester: ";

  std::vector<std::string> linesOf(const std::vector<Tester>& testers) {
    h.output.clear();
    admin.setTesters(testers);
    return h.output.lines();
  }

  AdminManager& admin = AdminManager::shared();
  const Tester other{.testerId = "other", .isLogsEnabled = true};
  const Tester sandbox{
      .testerId = md5Hex(kIdentifier), .isLogsEnabled = true, .isSandBoxEnabled = true};
  const Tester later{.testerId = md5Hex(kIdentifier)};
  using Lines = std::vector<std::string>;
};

TEST_F(TestDevices, AreKnownByTheDigestOfAnIdentifierThatMayLeave) {
  EXPECT_EQ(linesOf({sandbox}), Lines{kDisabled});
  h.identifiers.authorize(kIdentifier);
  EXPECT_EQ(linesOf({sandbox}), Lines{std::string(kHint) + "-"});
  privacy.setUserConsent(true);
  EXPECT_EQ(linesOf({other}), Lines{std::string(kHint) + kIdentifier});
  EXPECT_FALSE(admin.isTester());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::i);

  EXPECT_EQ(linesOf({other, sandbox, later}), Lines{"<KVA> [I]: This is a test device."});
  EXPECT_EQ(admin.tester(), sandbox);
  EXPECT_TRUE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::d);
}

TEST_F(TestDevices, StayTestDevicesWhenALaterListHasThemNot) {
  h.identifiers.authorize(kIdentifier);
  privacy.setUserConsent(true);
  EXPECT_EQ(linesOf({later}), Lines{"<KVA> [I]: This is a test device."});
  EXPECT_FALSE(admin.isSandbox());
  EXPECT_EQ(Log::shared().logLevel(), LogLevel::i) << "this tester has no logs";
  EXPECT_EQ(linesOf({}), Lines{});
  h.identifiers.set({kIdentifier, Authorization::denied, true});
  EXPECT_EQ(linesOf({}), Lines{kDisabled});
  EXPECT_TRUE(admin.isTester());
}

}  // namespace
}  // namespace kva
