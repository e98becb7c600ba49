#pragma once

#include <memory>

#include <Kelvara/base/URL.h>
#include <Kelvara/platform/View.h>
#include <Kelvara/platform/WebView.h>

// Main thread only.
namespace kva {

/// The host application and its screen; also the factory of views.
class HostApplication {
 public:
  enum class State { active, inactive, background };

  virtual ~HostApplication() = default;
  virtual State state() const = 0;
  /// The window that the user works in; null if there is none.
  virtual std::shared_ptr<Window> keyWindow() const = 0;
  /// Opens the URL in the user's default application for it.
  virtual void openURL(const URL& url) = 0;
  /// The size of the screen that the key window is on.
  virtual Size screenSize() const = 0;

  virtual std::shared_ptr<View> makeView(Rect frame) = 0;
  virtual std::shared_ptr<Button> makeButton() = 0;
  /// A hint that the SDK will make a web view soon. The platform may prepare one ahead of time.
  virtual void prepareWebView() = 0;
  virtual std::shared_ptr<WebView> makeWebView(Rect frame, WebViewConfiguration configuration) = 0;
  virtual std::shared_ptr<ViewController> makeViewController() = 0;
};

}  // namespace kva
