#include "platform/linux/LinuxPlatform.h"

#include "platform/linux/HostFacts.h"
#include "platform/linux/LazySession.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/MainLoop.h"
#include "platform/linux/ModemTelephony.h"
#include "platform/linux/ProcessOutput.h"
#include "platform/linux/SqliteDefaults.h"

namespace kva {
namespace {

std::filesystem::path defaultsFile(const LinuxOptions& options) {
  if (!options.userDefaults.empty()) return options.userDefaults;
  const std::string folder = options.bundleId.empty() ? "kelvara" : options.bundleId;
  return std::filesystem::path(g_get_user_data_dir()) / folder / "defaults.sqlite";
}

}  // namespace

LinuxPlatform makeLinuxPlatform(const LinuxOptions& options) {
  SystemBus bus;
  auto center = std::make_shared<NotificationCenter>();
  auto output = options.logOutput ? options.logOutput : std::make_shared<ProcessOutput>();
  const auto logError = [output](const std::string& line) {
    output->print(LogLevel::e, "<KVA> [E]: " + line);
  };
  auto session = std::make_shared<LazySession>(
      HostIdentity{.bundleId = options.bundleId, .appVersion = options.appVersion}, logError);
  auto mainLoop = std::make_shared<MainLoop>();
  auto device = std::make_shared<LinuxDevice>(center, bus);
  Platform ports;
  ports.urlSession = session;
  ports.userDefaults = std::make_shared<SqliteDefaults>(defaultsFile(options), logError);
  ports.mainQueue = mainLoop;
  ports.runLoop = std::make_shared<LinuxRunLoop>(mainLoop, session);
  ports.notificationCenter = center;
  ports.clock = std::make_shared<LinuxClock>();
  ports.locale = std::make_shared<LinuxLocale>();
  ports.device = device;
  ports.telephony = std::make_shared<ModemTelephony>(bus);
  ports.identifiers =
      std::make_shared<HostIdentifiers>(options.advertisingIdentifier, options.trackingAuthorized);
  ports.reachability = std::make_shared<NetworkReachability>(
      options.reachability, bus, [session] { session->dropIdleConnections(); });
  ports.mainBundle =
      std::make_shared<HostBundle>(options.mainBundle, options.bundleId, options.appVersion);
  ports.logOutput = output;
  ports.apiBases = options.apiBases;
  return {std::move(ports), std::move(device)};
}

}  // namespace kva
