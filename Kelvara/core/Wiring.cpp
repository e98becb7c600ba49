#include <Kelvara/core/Wiring.h>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/AnalyticsManager.h>

namespace kva {

void wireManagers(Runtime& runtime) {
  runtime.get<RequestHooks>() = {
      .isSandbox = [] { return AdminManager::shared().isSandbox(); },
      .userNotFound = [] { AnalyticsManager::shared().logout(); },
      .serverTime = [](std::int64_t time) { AnalyticsManager::shared().setDeltaTime(time); },
  };
}

}  // namespace kva
