#pragma once

#include <gtk/gtk.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <Kelvara/Export.h>
#include <Kelvara/Geometry.h>

namespace kva {

class ViewController;

namespace gtk {

/// What the SDK takes for the state of the network.
enum class NetworkPolicy {
  followSystem,
  assumeReachable,  ///< the server is on this machine, and needs no network
};

/// How much the SDK logs: each level with the ones before it.
enum class LogLevel { none = 0, error = 1, info = 2, debug = 3 };

/// What the SDK cannot find out about its host by itself. Every field may be left as it is; each
/// has an initialiser, so that a host may name the ones it sets without a compiler's warning.
struct HostOptions {
  /// The host application's identity, as the server knows it: "com.example.game", "3.1". Set
  /// `bundleId`: all applications that leave it empty share one user, one set of counters and one
  /// file (see `userDefaults`).
  std::string bundleId{}, appVersion{};
  /// The folder with the application's resources; empty: the executable's folder. The SDK looks for
  /// "KelvaraResources.bundle" there, then in the library's own data folder
  /// (<prefix>/share/kelvara). If it is in neither, an error line names both.
  std::filesystem::path mainBundle{};
  /// The file that the SDK keeps its state in, readable by its owner only; empty:
  /// $XDG_DATA_HOME/<bundleId>/defaults.sqlite, with "kelvara" for an empty bundle id. If the file
  /// cannot be opened, or another process locks it for more than a second, an error line says so
  /// and the state lasts as long as the process.
  std::filesystem::path userDefaults{};
  /// Addresses with "/api/v1" in them, used as given; empty: those that the library was built with.
  std::string productionAPIBase{}, sandboxAPIBase{};
  /// A UUID; empty: withheld, which is all zeros.
  std::string advertisingIdentifier{};
  /// Whether the user allows tracking. If false, the server cannot make this device a test device,
  /// and that is all: what keeps the identifier on the device is the lack of consent
  /// (`Kelvara::setUserConsent`), or leaving `advertisingIdentifier` empty.
  bool trackingAuthorized = false;
  /// What a bezel or a notch hides of the screen, in logical pixels; controls keep clear of it.
  EdgeInsets safeAreaInsets{};
  NetworkPolicy networkPolicy = NetworkPolicy::followSystem;
  /// Called on the main thread with an address that the user asked to see; empty: the desktop's
  /// own handler opens it.
  std::function<void(const std::string& url)> openURL{};
  /// What is logged. A test device for which the server switches logs on logs at `debug`, whatever
  /// this is, unless it is `none`.
  LogLevel logLevel = LogLevel::info;
  /// Takes each log line, without a newline at its end (the dump of a request has some inside);
  /// empty: lines go to standard output. Any thread, several at a time, also while the `Host` is
  /// made and destroyed. It must not throw or call the SDK.
  std::function<void(LogLevel level, const std::string& line)> logSink{};
};

/// Brings the SDK up in a GTK 4 application. Make one on the main thread before the first call of
/// the SDK, with a display; it initialises GTK where the application has not. Keep it for as long
/// as the SDK is used, and destroy it on the main thread, not from a callback of the SDK. There
/// is one at a time; breaking these rules stops the process with a message.
///
/// It wants the main loop to run: callbacks of shown ads, timers and pages come from there.
class KVA_EXPORT Host {
 public:
  explicit Host(HostOptions options);
  /// Removes ads that are on show and cancels open requests. It waits for the completions and
  /// delegate calls that run on other threads, so none of them may wait for the main thread.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// What an ad is shown from: it covers this window. The same controller each time, until the
  /// window is destroyed. Main thread; the controller may be released on any. Ads prepare
  /// themselves for the application's active window, else for the one that was shown last, whether
  /// or not this was called for it.
  std::shared_ptr<ViewController> viewController(GtkWindow* window);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace gtk
}  // namespace kva
