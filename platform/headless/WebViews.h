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

/// A web view without a page: it records what the SDK asks of it, and a test plays the page. Is its
/// own view.
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
  /// Recorded at once; answered in virtual time by what `answerScripts` gave, else with "null".
  void evaluateJavaScript(const std::string& script, Evaluated evaluated) override;

  const WebViewConfiguration& configuration() const { return configuration_; }
  bool isMuted() const { return isMuted_; }
  const std::vector<Load>& loads() const { return loads_; }
  /// The last HTML that was loaded; empty when there is none.
  std::string html() const;
  const std::vector<std::string>& scripts() const { return scripts_; }
  void clearScripts() { scripts_.clear(); }
  void answerScripts(Script answer) { answer_ = std::move(answer); }

  // What the page and the network do; each calls the delegate before it returns.
  void finishNavigation();
  void failNavigation(const Error& error);
  void terminateProcess();
  /// The user follows a link of the page, or of a frame in it: whether the delegate lets it.
  bool followLink(const std::string& url,
                  NavigationAction::TargetFrame target = NavigationAction::TargetFrame::main);
  /// The page navigates: whether the delegate lets it; a text that is no URL makes no request.
  bool navigate(const std::string& url,
                NavigationAction::TargetFrame target = NavigationAction::TargetFrame::main);
  /// The page asks for a new window.
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
