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

/// What the SDK cannot know of its host by itself. Every field may be left as it is; each has an
/// initialiser, so that a host may name the ones it sets without a compiler's warning.
struct HostOptions {
  /// The host application's identity, as the server knows it: "com.example.game", "3.1".
  std::string bundleId{}, appVersion{};
  /// Where the application's resources are, "KelvaraResources.bundle" among them; empty: the
  /// executable's folder.
  std::filesystem::path mainBundle{};
  /// The file that the SDK keeps its state in, made readable to its owner only; empty:
  /// $XDG_DATA_HOME/<bundleId>/defaults.sqlite.
  std::filesystem::path userDefaults{};
  /// Addresses with "/api/v1" in them, used as given; empty: those that the library was built with.
  std::string productionAPIBase{}, sandboxAPIBase{};
  /// A UUID; empty: withheld, which is all zeros.
  std::string advertisingIdentifier{};
  /// Whether the user lets the identifier be used for advertising.
  bool trackingAuthorized = false;
  /// What a bezel or a notch hides of the screen, in logical pixels; controls keep clear of it.
  EdgeInsets safeAreaInsets{};
  NetworkPolicy networkPolicy = NetworkPolicy::followSystem;
  /// Called on the main thread with an address that the user asked to see; empty: the desktop's
  /// own handler opens it.
  std::function<void(const std::string& url)> openURL{};
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
  /// Takes ads that are on show away with it; what was sent is answered first.
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
