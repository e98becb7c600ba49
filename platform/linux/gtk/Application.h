#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <vector>

#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/HostApplication.h>
#include <platform/linux/gtk/NativeWindow.h>
#include <platform/linux/gtk/WebViewPool.h>

namespace kva::gtk {

/// The host's GTK application with all of its windows. Main thread only.
///
/// The key window is the active one; without one, the window on the screen, or else off it, that
/// was shown last. A window that was never shown is not the key window.
///
/// The state is that of the key window: in the background while that is minimised or not shown,
/// otherwise active when any of the process's windows has the user's attention. A display without
/// a window manager says so of no window; there, a window that is on screen counts as active.
class Application final : public kva::HostApplication {
 public:
  struct Options {
    EdgeInsets safeAreaInsets;
    /// Opens an address; the desktop's handler when empty.
    std::function<void(const std::string&)> openURL;
    /// Called with the shape of the key window, as an orientation, whenever it may have changed.
    std::function<void(DeviceOrientation)> shapeChanged;
    /// Writes an error line to the SDK's log.
    std::function<void(const std::string&)> logError;
    /// Called whenever `state` may have changed.
    std::function<void()> stateChanged;
  };
  explicit Application(Options options);
  ~Application() override { leaveWindows(); }

  /// The host's own controller for one of its windows; the same one each time.
  std::shared_ptr<ViewController> viewController(GtkWindow* window);
  /// Forgets every window, present and future, and takes what is presented in them away.
  void leaveWindows();
  const WebViewPool& webViewPool() const { return pool_; }

  State state() const override;
  std::shared_ptr<Window> keyWindow() const override;
  void openURL(const URL& url) override;
  Size screenSize() const override;
  std::shared_ptr<View> makeView(Rect frame) override;
  std::shared_ptr<Button> makeButton() override;
  std::shared_ptr<WebView> makeWebView(Rect frame, WebViewConfiguration configuration) override;
  std::shared_ptr<ViewController> makeViewController() override;

 private:
  struct HostWindow {
    std::shared_ptr<NativeWindow> window;
    std::shared_ptr<NativeViewController> controller;  ///< null until it is asked for
    bool wasShown = false;
  };
  using Windows = std::vector<HostWindow>;
  Windows::iterator find(const NativeWindow& window);
  const HostWindow* keyHostWindow() const;
  void adopt(GtkWindow* window);
  void didShow(const NativeWindow& window);
  void forget(const NativeWindow& window);
  void windowsDidChange() const;

  Options options_;
  /// Shared with openings in progress, which may outlive this object.
  std::shared_ptr<std::function<void(const std::string&)>> logError_;
  WebViewPool pool_;
  Windows windows_;  ///< the one shown last is the last
  Subscription toplevelsChanged_;
};

}  // namespace kva::gtk
