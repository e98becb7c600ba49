#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/HostApplication.h>
#include <platform/linux/gtk/NativeWindow.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

/// The host's GTK application and all of its windows. Main thread only.
///
/// The key window is the active window. If no window is active, it is the window on screen that was
/// shown last; if none is on screen, the window that was shown last. A window that was never shown
/// is not the key window.
///
/// The state follows the key window: background while that window is minimised or hidden, otherwise
/// active if any window of the process is active. Without a window manager no window is ever
/// active, so there a window on screen counts as active.
class Application final : public kva::HostApplication {
 public:
  struct Options {
    EdgeInsets safeAreaInsets;
    /// Opens an address. If empty, the desktop's handler opens it.
    std::function<void(const std::string&)> openURL;
    /// Called whenever the key window's shape may have changed, with the shape as an orientation.
    std::function<void(DeviceOrientation)> shapeChanged;
    /// Writes an error line to the SDK's log.
    std::function<void(const std::string&)> logError;
    /// Called whenever `state` may have changed.
    std::function<void()> stateChanged;
  };
  explicit Application(Options options);
  ~Application() override { leaveWindows(); }

  /// The host's controller of `window`; the same object each time.
  std::shared_ptr<ViewController> viewController(GtkWindow* window);
  /// The controller of a full-screen window of the SDK, for a host without GTK windows. The window
  /// is open while something covers it.
  std::shared_ptr<ViewController> window();
  /// Stops observing windows, also new ones, and tears down what is presented in them.
  void leaveWindows();
  bool hasReadyWebView() const { return webEngine_ && webEngine_->hasReady(); }

  State state() const override;
  std::shared_ptr<Window> keyWindow() const override;
  void openURL(const URL& url) override;
  Size screenSize() const override;
  std::shared_ptr<View> makeView(Rect frame) override;
  std::shared_ptr<Button> makeButton() override;
  void prepareWebView() override;
  std::shared_ptr<WebView> makeWebView(Rect frame, WebViewConfiguration configuration) override;
  std::shared_ptr<ViewController> makeViewController() override;

 private:
  struct HostWindow {
    std::shared_ptr<NativeWindow> window;
    std::shared_ptr<NativeViewController> controller;  ///< created on first use
    bool wasShown = false;
  };
  using Windows = std::vector<HostWindow>;
  WebEngine& webEngine();
  bool isAnimating() const;
  Windows::iterator find(const NativeWindow& window);
  const HostWindow* keyHostWindow() const;
  void adopt(GtkWindow* window);
  void didShow(const NativeWindow& window);
  void didCover(const NativeWindow& window) const;
  void forget(const NativeWindow& window);
  void windowsDidChange() const;
  /// Forgets the screen's size when `window` or `monitor` may have got another.
  void followScreen(GtkWindow* window, GdkMonitor* monitor) const;

  Options options_;
  /// Asynchronous operations may outlive this object and refer to it weakly.
  std::shared_ptr<std::function<void(const std::string&)>> logError_;
  std::unique_ptr<WebEngine> webEngine_;  ///< made by the first call that needs it
  Windows windows_;                       ///< ordered by the time they were last shown
  SignalConnection toplevelsChanged_;
  GObjectPtr<GtkWindow> ownWindow_;  ///< made by `window`
  SignalConnection ownWindowCloses_;
  /// The size of the key window's screen. Absent after a signal that may mean another one: asking
  /// the display takes two round trips.
  mutable std::optional<Size> screenSize_;
  mutable std::vector<SignalConnection> screenChanges_;
};

}  // namespace kva::gtk
