#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/base/Result.h>
#include <Kelvara/platform/URLSession.h>
#include <Kelvara/platform/View.h>

// Everything in this file lives on the main thread.
namespace kva {

struct WebViewConfiguration {
  bool allowsInlineMediaPlayback = true;
  bool requiresUserActionForMediaPlayback = false;
  /// Runs at document start, before any script of the page, in the main frame only.
  std::string userScript;
  bool isOpaque = true;  ///< false: what is behind the view shows through the page
  bool bounces = true;   ///< false: no overscroll
  bool allowsZooming = true;
};

struct NavigationAction {
  enum class TargetFrame { none, main, sub };  ///< none: a new window was asked for
  std::optional<URLRequest> request;           ///< absent when its URL is none
  TargetFrame target = TargetFrame::main;
  bool isFollowedLink = false;  ///< the user activated a link, in whatever frame
};

struct ScriptDialog {
  enum class Kind { alert, confirm, prompt };
  Kind kind;
  std::string message, defaultText;
};
struct ScriptDialogAnswer {
  bool confirmed = false;
  std::optional<std::string> text;
};

class WebViewDelegate {
 public:
  virtual ~WebViewDelegate() = default;
  virtual void webViewDidFinishNavigation() = 0;
  /// Provisional or not; also when the page's process dies before it has finished loading.
  virtual void webViewDidFailNavigation(const Error& error) = 0;
  /// The process of a page that had loaded has ended, and with it the page.
  virtual void webViewProcessDidTerminate(const Error& error) = 0;
  /// Asked for every navigation of every frame; false cancels it.
  virtual bool webViewDecidePolicy(const NavigationAction& action) = 0;
  /// The page asks for a new window; none is ever made.
  virtual void webViewCreateWebView(const NavigationAction& action) = 0;
  /// The page waits for the answer; nothing is shown.
  virtual ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) = 0;
};

/// One web page with its own script world, which shares no storage, no scheme and no extension with
/// the host's pages. Permission prompts, downloads, full screen, pointer lock, file choosers, media
/// sessions and the asynchronous clipboard are refused; "before unload" questions are answered with
/// leave. Destroying it leaves the page 100 ms, unseen and silent, for the scripts that were given
/// before.
class WebView {
 public:
  /// The script's value as JSON text, or what it threw.
  using Evaluated = std::move_only_function<void(Result<std::string>)>;

  virtual ~WebView() = default;
  virtual std::shared_ptr<View> view() = 0;
  virtual void setDelegate(std::weak_ptr<WebViewDelegate> delegate) = 0;
  virtual void loadHTML(const std::string& html, const std::optional<URL>& baseURL) = 0;
  virtual void load(const URLRequest& request) = 0;
  /// A muted page plays on unheard.
  virtual void setMuted(bool isMuted) = 0;
  /// In the page's main frame; `evaluated` may be null. Scripts run in the order given.
  virtual void evaluateJavaScript(const std::string& script, Evaluated evaluated) = 0;
};

}  // namespace kva
