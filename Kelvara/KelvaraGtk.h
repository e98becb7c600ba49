#pragma once

#include <gtk/gtk.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <Kelvara/Export.h>
#include <Kelvara/Geometry.h>

namespace kva {

class ViewController;

namespace gtk {

/// How the SDK decides whether the network is reachable.
enum class NetworkPolicy {
  followSystem,
  assumeReachable,  ///< for a server on this machine, which needs no network
};

/// How much the SDK logs. Each level includes the ones before it.
enum class LogLevel { none = 0, error = 1, info = 2, debug = 3 };

/// Facts of the host that the SDK cannot detect. Every field is optional. Each one has an
/// initialiser, so a host can use designated initialisers without a compiler warning. Later
/// versions append fields; a host that was compiled before gets their defaults.
struct HostOptions {
  /// The host application's identity at the server: "com.example.game", "3.1". Set `bundleId`:
  /// applications that leave it empty share one user, one set of counters and one file (see
  /// `userDefaults`).
  std::string bundleId{}, appVersion{};
  /// The folder with the application's resources; empty: the executable's folder. The SDK searches
  /// it for "KelvaraResources.bundle", then the library's data folder (`<prefix>/share/kelvara`).
  /// If the bundle is in neither, an error line names both.
  std::filesystem::path mainBundle{};
  /// The file for the SDK's state, readable by its owner only; empty:
  /// `$XDG_DATA_HOME/<bundleId>/defaults.sqlite`, with "kelvara" for an empty bundle id. If the
  /// file cannot be opened, or another process locks it for more than a second, the SDK logs an
  /// error and keeps its state in memory until the process ends.
  std::filesystem::path userDefaults{};
  /// Addresses that include "/api/v1", used unchanged; empty: the addresses set when the library
  /// was built.
  std::string productionAPIBase{}, sandboxAPIBase{};
  /// A UUID; empty: withheld, which is all zeros.
  std::string advertisingIdentifier{};
  /// Whether the user allows tracking. False only prevents that the server makes this device a test
  /// device. It does not keep the identifier on the device: for that, give no consent
  /// (`Kelvara::setUserConsent`) or leave `advertisingIdentifier` empty.
  bool trackingAuthorized = false;
  /// The parts of the screen that a bezel or a notch hides, in logical pixels. Controls stay out of
  /// them.
  EdgeInsets safeAreaInsets{};
  NetworkPolicy networkPolicy = NetworkPolicy::followSystem;
  /// Called on the main thread with an address that the user requested; empty: the desktop's
  /// handler opens it.
  std::function<void(const std::string& url)> openURL{};
  /// How much is logged. If the server enables logs for this test device, the level becomes
  /// `debug`, unless this is `none`.
  LogLevel logLevel = LogLevel::info;
  /// Receives each log line, without a newline at its end (the dump of a request has newlines
  /// inside); empty: lines go to standard output. Called on any thread, on several at a time, also
  /// while the `Host` is created and destroyed. It must not throw or call the SDK.
  std::function<void(LogLevel level, const std::string& line)> logSink{};
};

/// Runs the SDK in a GTK 4 application. Create one on the main thread before the first call of the
/// SDK; it needs a display, and initialises GTK if the application has not. Keep it as long as the
/// SDK is used. Destroy it on the main thread, not in a callback of the SDK. Only one can exist at
/// a time. Breaking these rules aborts the process with a message.
///
/// The main loop must run: it drives the callbacks of shown ads, timers and pages.
class KVA_EXPORT Host {
 public:
  explicit Host(const HostOptions& options) : Host(options, sizeof(HostOptions)) {}
  /// Removes ads on screen and cancels open requests. It waits for the completions and delegate
  /// calls that run on other threads, so none of them may wait for the main thread.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// The controller to show ads from; they cover `window`. Returns the same controller until the
  /// window is destroyed. Main thread; the controller may be released on any thread. An ad prepares
  /// in the application's active window, or else in the window shown last, even if this was not
  /// called for that window.
  std::shared_ptr<ViewController> viewController(GtkWindow* window);
  /// The same for an application without GTK windows: ads cover the screen, in a window that the
  /// SDK opens for each ad and closes after it. Main thread.
  std::shared_ptr<ViewController> viewController();

  /// For an application that does not run GLib's main loop: handles the events that wait there, for
  /// at most about 10 ms. Call it on the main thread in each turn of the application's loop, at
  /// least 30 times a second while an ad is on screen.
  void pump();

 private:
  /// `size` is the size of the options that the host was compiled with.
  Host(const HostOptions& options, std::size_t size);

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace gtk
}  // namespace kva
