#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <Kelvara/platform/WebView.h>
#include <platform/headless/Views.h>

namespace kva::headless {

/// A web view without a page. It records the SDK's calls, and a test plays the page. It is its own
/// view.
class HeadlessWebView final : public HeadlessView, public WebView {
 public:
  struct Load {
    std::optional<std::string> html;
    std::optional<URL> baseURL;
    std::optional<URLRequest> request;
  };
  using Script = std::function<Result<std::string>(const std::string& script)>;

  HeadlessWebView(VirtualTime& time, Rect frame, WebViewConfiguration configuration);

  std::shared_ptr<View> view() override { return shared_from_this(); }
  using HeadlessView::setDelegate;
  void setDelegate(std::weak_ptr<WebViewDelegate> delegate) override;
  void loadHTML(const std::string& html, const std::optional<URL>& baseURL) override;
  void load(const URLRequest& request) override;
  void setMuted(bool isMuted) override { isMuted_ = isMuted; }
  /// Records the script at once. Calls `evaluated` in virtual time, with the result of the function
  /// that `answerScripts` set, or with "null".
  void evaluateJavaScript(const std::string& script, Evaluated evaluated) override;

  const WebViewConfiguration& configuration() const { return configuration_; }
  bool isMuted() const { return isMuted_; }
  const std::vector<Load>& loads() const { return loads_; }
  /// The HTML that was loaded last; empty if there is none.
  std::string html() const;
  const std::vector<std::string>& scripts() const { return scripts_; }
  void clearScripts() { scripts_.clear(); }
  void answerScripts(Script answer) { answer_ = std::move(answer); }

  // Events of the page and the network. Each calls the delegate before it returns.
  void finishNavigation();
  void failNavigation(const Error& error);
  void terminateProcess();
  /// The user follows a link in a frame of the page. Returns whether the delegate allows it.
  bool followLink(const std::string& url,
                  NavigationAction::TargetFrame target = NavigationAction::TargetFrame::main);
  /// The page navigates. Returns whether the delegate allows it. If `url` is not a URL, the action
  /// has no request.
  bool navigate(const std::string& url,
                NavigationAction::TargetFrame target = NavigationAction::TargetFrame::main);
  /// The page requests a new window.
  void createWebView(const std::string& url,
                     NavigationAction::TargetFrame target = NavigationAction::TargetFrame::none);
  ScriptDialogAnswer dialog(const ScriptDialog& dialog);

 private:
  VirtualTime& time_;
  WebViewConfiguration configuration_;
  std::weak_ptr<WebViewDelegate> pageDelegate_;
  std::vector<Load> loads_;
  std::vector<std::string> scripts_;
  Script answer_;
  bool isMuted_ = false;
};

}  // namespace kva::headless
