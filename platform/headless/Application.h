#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <Kelvara/platform/HostApplication.h>
#include <platform/headless/Views.h>
#include <platform/headless/WebViews.h>

namespace kva::headless {

/// The host application; at first it is active and has no window. Used on the thread that runs
/// virtual time.
class HeadlessApplication final : public HostApplication {
 public:
  explicit HeadlessApplication(VirtualTime& time) : time_(time) {}

  /// Makes a window and makes it the key window.
  std::shared_ptr<HeadlessWindow> makeWindow(Rect frame = {0, 0, 400, 800},
                                             EdgeInsets safeAreaInsets = {});
  void setKeyWindow(std::shared_ptr<HeadlessWindow> window) { keyWindow_ = window; }
  void setState(State state);
  /// Sets the callback for changes of the state.
  void connect(std::function<void()> stateChanged) { stateChanged_ = std::move(stateChanged); }
  void setScreenSize(Size size) { screenSize_ = size; }

  const std::vector<std::string>& openedURLs() const { return openedURLs_; }

  // What this application made and is not destroyed yet.
  int liveViews() const;  ///< includes buttons, web views and controllers' views
  int liveWebViews() const { return static_cast<int>(webViews().size()); }
  int liveButtons() const { return static_cast<int>(live<HeadlessButton>().size()); }
  int liveViewControllers() const;
  std::vector<std::shared_ptr<HeadlessWebView>> webViews() const { return live<HeadlessWebView>(); }
  /// The newest live web view; null if there is none.
  std::shared_ptr<HeadlessWebView> webView() const;
  /// The newest live button with this image; null if there is none.
  std::shared_ptr<HeadlessButton> button(std::string_view imageName) const;

  State state() const override { return state_; }
  std::shared_ptr<Window> keyWindow() const override;
  void openURL(const URL& url) override { openedURLs_.push_back(url.absoluteString()); }
  Size screenSize() const override { return screenSize_; }
  std::shared_ptr<View> makeView(Rect frame) override;
  std::shared_ptr<Button> makeButton() override;
  void prepareWebView() override {}
  std::shared_ptr<WebView> makeWebView(Rect frame, WebViewConfiguration configuration) override;
  std::shared_ptr<ViewController> makeViewController() override;

 private:
  template <class T>
  std::vector<std::shared_ptr<T>> live() const;

  VirtualTime& time_;
  State state_ = State::active;
  std::function<void()> stateChanged_;
  Size screenSize_{1280, 1024};
  std::vector<std::shared_ptr<HeadlessWindow>> windows_;
  std::weak_ptr<HeadlessWindow> keyWindow_;
  std::vector<std::string> openedURLs_;
  std::vector<std::weak_ptr<HeadlessView>> views_;  // in the order of construction
  std::vector<std::weak_ptr<HeadlessViewController>> viewControllers_;
};

}  // namespace kva::headless
