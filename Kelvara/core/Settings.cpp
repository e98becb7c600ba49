#include <Kelvara/core/Settings.h>

#include <Kelvara/core/SDKManager.h>

namespace kva {

bool SDKHelper::Settings::isSoundMuted() {
  const auto application = SDKManager::shared().application();
  return application && application->setting.isSoundMuted;
}

}  // namespace kva
