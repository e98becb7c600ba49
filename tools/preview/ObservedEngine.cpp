// The preview's implementation of `loadWebEngine`: the SDK's own engine, whose views are observed.
// The linker takes this one instead of the one in platform/linux/modules/web.cpp, so the SDK needs
// no hook for the preview.
#include <Kelvara/base/StringExtensions.h>
#include <platform/linux/gtk/WebEngine.h>
#include <platform/linux/gtk/WebViewPool.h>

#include <string_view>
#include <utility>

#include "Observer.h"

namespace kva::preview {
namespace {

using gtk::ContentView;
using gtk::WebEngine;

constexpr std::string_view kErrorEvent = "window.mraidbridge.fireErrorEvent('";

/// "open: URL not found!" of an error event for the page; empty for any other script.
std::string refusalIn(std::string_view script) {
  if (!script.starts_with(kErrorEvent)) return {};
  script.remove_prefix(kErrorEvent.size());
  const auto middle = script.find("', '"), end = script.rfind("');");
  if (middle == script.npos || end == script.npos) return {};
  return std::string(script.substr(0, middle)) + ": " +
         std::string(script.substr(middle + 4, end - middle - 4));
}

/// Stands between the SDK and its web view.
class ObservedWebView final : public WebView,
                              public WebViewDelegate,
                              public std::enable_shared_from_this<ObservedWebView> {
 public:
  explicit ObservedWebView(std::shared_ptr<WebView> inner) : inner_(std::move(inner)) {}

  std::shared_ptr<View> view() override { return inner_->view(); }
  void setDelegate(std::weak_ptr<WebViewDelegate> delegate) override {
    delegate_ = std::move(delegate);
    inner_->setDelegate(weak_from_this());
  }
  void loadHTML(const std::string& html, const std::optional<URL>& baseURL) override {
    note(Source::sdk, "loads the document, " + std::to_string(html.size()) + " bytes");
    if (auto* observer = Observer::current()) {
      observer->loadBegan = g_get_monotonic_time();
      observer->observations().addSize("", static_cast<std::int64_t>(html.size()));
    }
    inner_->loadHTML(html, baseURL);
  }
  void load(const URLRequest& request) override {
    note(Source::sdk, "loads " + request.url.absoluteString());
    inner_->load(request);
  }
  void setMuted(bool isMuted) override {
    note(Source::sdk, isMuted ? "silences the page" : "lets the page be heard");
    inner_->setMuted(isMuted);
  }
  void evaluateJavaScript(const std::string& script, Evaluated evaluated) override {
    note(Source::sdk, script);
    if (auto refusal = refusalIn(script); !refusal.empty()) {
      wasRefused_ = true;
      breach(Rule::commands, refusal);
    }
    inner_->evaluateJavaScript(script, std::move(evaluated));
  }

  void webViewDidFinishNavigation() override {
    isLoaded_ = true;
    note(Source::page, "has loaded");
    if (auto delegate = delegate_.lock()) delegate->webViewDidFinishNavigation();
  }
  void webViewDidFailNavigation(const Error& error) override {
    const std::string why = "does not load: " + error.localizedDescription();
    if (isLoaded_)
      note(Source::page, why);
    else
      breach(Rule::plays, "the page " + why);
    if (auto delegate = delegate_.lock()) delegate->webViewDidFailNavigation(error);
  }
  void webViewProcessDidTerminate(const Error& error) override {
    breach(Rule::plays, error.localizedDescription());
    if (auto delegate = delegate_.lock()) delegate->webViewProcessDidTerminate(error);
  }
  bool webViewDecidePolicy(const NavigationAction& action) override {
    auto delegate = delegate_.lock();
    if (!delegate) return true;
    bool isAllowed = true;
    followRequest(action, [&] { return isAllowed = delegate->webViewDecidePolicy(action); });
    return isAllowed;
  }
  void webViewCreateWebView(const NavigationAction& action) override {
    auto delegate = delegate_.lock();
    if (!delegate) return;
    followRequest(action, [&] {
      delegate->webViewCreateWebView(action);
      return false;
    });
  }
  ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) override {
    note(Source::page, "asks in a dialog, which is not shown: " + dialog.message);
    auto delegate = delegate_.lock();
    return delegate ? delegate->webViewRunScriptDialog(dialog) : ScriptDialogAnswer{};
  }

 private:
  static void note(Source source, std::string text) {
    if (auto* observer = Observer::current()) observer->observations().note(source, text);
  }
  static void breach(Rule rule, const std::string& text) {
    if (auto* observer = Observer::current()) observer->observations().breach(rule, text);
  }

  /// Lets the SDK decide on a navigation, and records what the page asked for and what became of
  /// it. An address that was neither opened nor refused with an error came before a tap.
  void followRequest(const NavigationAction& action, const std::function<bool()>& decide) {
    auto* observer = Observer::current();
    if (!observer || !action.request) return void(decide());
    const URL& url = action.request->url;
    const std::string scheme = url.scheme().value_or("");
    const bool isCommand = scheme == "mraid" || scheme == "kva";
    note(Source::page, (isCommand ? "" : "navigates to ") + url.absoluteString());
    if (scheme == "kva" && url.host() == "videoComplete")
      observer->observations().hasEndedVideo = true;

    const auto before = observer->observations().opened.size();
    wasRefused_ = false;
    if (decide() || wasRefused_ || observer->observations().opened.size() != before) return;
    if (scheme == "kva" || scheme == "ios-log" || (scheme == "mraid" && url.host() == "resize"))
      return;
    if (scheme != "mraid")
      return breach(Rule::taps, url.absoluteString() + " is followed before a tap");
    const auto query = hasWellFormedQuery(url) ? queryDictionary(url) : std::nullopt;
    const bool isReadable =
        query && query->contains("url") && URL::parse(query->at("url")).has_value();
    if (isReadable)
      breach(Rule::taps, "open(\"" + query->at("url") + "\") before a tap");
    else
      breach(Rule::commands, url.absoluteString() + " is not readable");
  }

  const std::shared_ptr<WebView> inner_;
  std::weak_ptr<WebViewDelegate> delegate_;
  bool wasRefused_ = false, isLoaded_ = false;
};

class ObservedEngine final : public WebEngine {
 public:
  explicit ObservedEngine(gtk::WebSurroundings surroundings) : pool_(std::move(surroundings)) {
    if (auto* observer = Observer::current())
      observer->hasReadyView = [this] { return pool_.hasReady(); };
  }
  ~ObservedEngine() override {
    if (auto* observer = Observer::current()) observer->hasReadyView = [] { return false; };
  }
  void prepare() override { pool_.prepare(); }
  bool hasReady() const override { return pool_.hasReady(); }
  void windowsDidChange() override { pool_.windowsDidChange(); }
  std::shared_ptr<WebView> makeWebView(Rect frame,
                                       const WebViewConfiguration& configuration) override {
    auto made = pool_.makeWebView(frame, configuration);
    auto observed = std::make_shared<ObservedWebView>(made);
    // The SDK's script is in the page's content already, so the probe runs after it.
    auto* widget =
        gtk_widget_get_first_child(std::dynamic_pointer_cast<ContentView>(made->view())->widget());
    if (auto* observer = Observer::current()) observer->follow(WEBKIT_WEB_VIEW(widget), made);
    return observed;
  }

 private:
  gtk::WebViewPool pool_;
};

}  // namespace

}  // namespace kva::preview

namespace kva::gtk {

Result<WebEngineMaker> loadWebEngine() {
  return [](WebSurroundings surroundings) -> WebEngine* {
    return new preview::ObservedEngine(std::move(surroundings));
  };
}

}  // namespace kva::gtk
