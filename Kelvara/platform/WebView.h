#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/base/Result.h>
#include <Kelvara/platform/URLSession.h>
#include <Kelvara/platform/View.h>

// Main thread only.
namespace kva {

struct WebViewConfiguration {
  bool allowsInlineMediaPlayback = true;
  bool requiresUserActionForMediaPlayback = false;
  /// Runs at document start, before the page's scripts, in the main frame only.
  std::string userScript;
  bool isOpaque = true;  ///< false: black, not white, where the page draws nothing
  bool bounces = true;   ///< false: no overscroll
  bool allowsZooming = true;
};

struct NavigationAction {
  enum class TargetFrame { none, main, sub };  ///< none: the page requested a new window
  std::optional<URLRequest> request;           ///< absent if the URL is invalid
  TargetFrame target = TargetFrame::main;
  bool isFollowedLink = false;  ///< the user activated a link, in any frame
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
  /// A navigation failed, provisional or committed, or the page's process ended before the page had
  /// loaded.
  virtual void webViewDidFailNavigation(const Error& error) = 0;
  /// The process of a loaded page ended. The page is lost.
  virtual void webViewProcessDidTerminate(const Error& error) = 0;
  /// Called for every navigation of every frame. False cancels the navigation.
  virtual bool webViewDecidePolicy(const NavigationAction& action) = 0;
  /// The page requested a new window. No window is created.
  virtual void webViewCreateWebView(const NavigationAction& action) = 0;
  /// The page's script is blocked until this returns. No dialog is shown.
  virtual ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) = 0;
};

/// One web page with its own script world. It shares no storage, scheme or extension with the
/// host's pages. It refuses permission prompts, downloads, full screen, pointer lock, file
/// choosers, media sessions and the asynchronous clipboard, and lets a page leave without a "before
/// unload" prompt. When it is destroyed, its page stays, invisible and muted, to run the scripts
/// that were evaluated before: for 300 ms, or for up to 2.1 s if these or the page's requests take
/// longer.
class WebView {
 public:
  /// The script's value as JSON text, or the exception that it threw.
  using Evaluated = std::move_only_function<void(Result<std::string>)>;

  virtual ~WebView() = default;
  virtual std::shared_ptr<View> view() = 0;
  virtual void setDelegate(std::weak_ptr<WebViewDelegate> delegate) = 0;
  virtual void loadHTML(const std::string& html, const std::optional<URL>& baseURL) = 0;
  virtual void load(const URLRequest& request) = 0;
  /// A muted page continues to play without sound.
  virtual void setMuted(bool isMuted) = 0;
  /// Runs in the page's main frame. `evaluated` may be null. Scripts run in the order of the calls.
  virtual void evaluateJavaScript(const std::string& script, Evaluated evaluated) = 0;
};

}  // namespace kva
