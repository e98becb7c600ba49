#pragma once

#include <memory>

#include <Kelvara/base/URL.h>
#include <Kelvara/platform/View.h>
#include <Kelvara/platform/WebView.h>

// Everything in this file lives on the main thread.
namespace kva {

/// The host application, its screen, and the maker of views.
class HostApplication {
 public:
  enum class State { active, inactive, background };

  virtual ~HostApplication() = default;
  virtual State state() const = 0;
  /// The window that has the user's attention; null when there is none.
  virtual std::shared_ptr<Window> keyWindow() const = 0;
  /// Hands the URL to whatever the user opens such addresses with.
  virtual void openURL(const URL& url) = 0;
  /// The whole screen that the key window is on.
  virtual Size screenSize() const = 0;

  virtual std::shared_ptr<View> makeView(Rect frame) = 0;
  virtual std::shared_ptr<Button> makeButton() = 0;
  virtual std::shared_ptr<WebView> makeWebView(Rect frame, WebViewConfiguration configuration) = 0;
  virtual std::shared_ptr<ViewController> makeViewController() = 0;
};

}  // namespace kva
