#pragma once

#include <memory>

#include <Kelvara/platform/Clock.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/DispatchQueue.h>
#include <Kelvara/platform/HostApplication.h>
#include <Kelvara/platform/Locale.h>
#include <Kelvara/platform/LogOutput.h>
#include <Kelvara/platform/MainBundle.h>
#include <Kelvara/platform/NotificationCenter.h>
#include <Kelvara/platform/ReachabilityService.h>
#include <Kelvara/platform/RunLoop.h>
#include <Kelvara/platform/URLSession.h>
#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// All ports of one runtime. `application` may be null if no ads are shown.
struct Platform {
  std::shared_ptr<URLSession> urlSession;
  std::shared_ptr<UserDefaults> userDefaults;
  std::shared_ptr<MainQueue> mainQueue;
  std::shared_ptr<RunLoop> runLoop;
  std::shared_ptr<NotificationCenter> notificationCenter;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<Locale> locale;
  std::shared_ptr<DeviceInfo> device;
  std::shared_ptr<Telephony> telephony;
  std::shared_ptr<IdentifierManager> identifiers;
  std::shared_ptr<ReachabilityService> reachability;
  std::shared_ptr<MainBundle> mainBundle;
  std::shared_ptr<LogOutput> logOutput;
  std::shared_ptr<HostApplication> application;
  APIBases apiBases;
};

}  // namespace kva
