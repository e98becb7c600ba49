#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <Kelvara/platform/Platform.h>

#include "platform/linux/LinuxDevice.h"
#include "platform/linux/NetworkReachability.h"

namespace kva {

struct LinuxOptions {
  std::string bundleId, appVersion;    ///< the host application's identity
  std::filesystem::path mainBundle;    ///< default: the executable's folder
  std::filesystem::path userDefaults;  ///< default: $XDG_DATA_HOME/<bundleId>/defaults.sqlite
  APIBases apiBases;
  std::string advertisingIdentifier;  ///< default: all zeros (withheld)
  bool trackingAuthorized = false;
  ReachabilityPolicy reachability = ReachabilityPolicy::followSystem;
  std::shared_ptr<LogOutput> logOutput{};  ///< default: standard output
};

struct LinuxPlatform {
  Platform ports;                       ///< all but `application`
  std::shared_ptr<LinuxDevice> device;  ///< needs the shape of the host's window
};

/// Makes the ports for this machine. Call it, and release the last reference to each port, on the
/// main thread. It needs no running main loop. When all ports are destroyed, their threads have
/// ended.
LinuxPlatform makeLinuxPlatform(const LinuxOptions& options);

}  // namespace kva
