#include <Kelvara/user/AdminManager.h>

#include <algorithm>

#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/PrivacyManager.h>

namespace kva {
namespace {

// clang-format off
constexpr const char* kTrackingDisabled =
    "Advertising tracking disabled, turn on advertising tracking and get your IDFA to become tester.";
// clang-format on

}  // namespace

AdminManager& AdminManager::shared() { return Runtime::current().get<AdminManager>(); }

void AdminManager::setTesters(const std::vector<Tester>& testers) {
  const PrivacyManager& privacy = PrivacyManager::shared();
  if (!privacy.isAdTrackingEnabled()) return Log::i(kTrackingDisabled);

  if (const auto hash = privacy.encryptedIDFA()) {
    const auto match = std::ranges::find(testers, *hash, &Tester::testerId);
    if (match != testers.end()) {
      tester_.set(*match);
      Log::i("This is a test device.");
      if (match->isLogsEnabled) Log::shared().setLogLevel(LogLevel::d);
    }
  }

  if (!isTester() && privacy.isAdTrackingEnabled())
    Log::i("Send your IDFA to your account manager to become tester: " +
           privacy.idfaWithPrivacy().value_or("-"));
}

bool AdminManager::isTester() const {
  return tester_.with([](const auto& tester) { return tester.has_value(); });
}

bool AdminManager::isSandbox() const {
  return tester_.with([](const auto& tester) { return tester && tester->isSandBoxEnabled; });
}

std::optional<Tester> AdminManager::tester() const { return tester_.get(); }

}  // namespace kva
