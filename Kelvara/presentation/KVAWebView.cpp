#include <Kelvara/presentation/KVAWebView.h>

#include <algorithm>
#include <array>
#include <utility>

#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {
namespace {

/// Whether a link to `url` leads out of its frame. WebKit does not provide the frame's own address,
/// so an address with a fragment counts as a place in the same document.
bool leadsOut(const URL& url) {
  if (url.absoluteString().find('#') != std::string::npos) return false;
  const std::string scheme = lowercased(url.scheme().value_or(""));
  constexpr std::array kOutward{"http", "https", "tel", "sms", "mailto"};
  return std::ranges::find(kOutward, scheme) != kOutward.end();
}

}  // namespace

std::shared_ptr<KVAWebView> KVAWebView::create(Rect frame, SafeArea safeArea) {
  std::shared_ptr<KVAWebView> host(new KVAWebView);
  host->setup(frame, safeArea);
  return host;
}

KVAWebView::~KVAWebView() { webView_->view()->removeFromSuperview(); }

void KVAWebView::setup(Rect frame, SafeArea safeArea) {
  HostApplication& application = hostApplication();
  view_ = application.makeView(frame);
  view_->setDelegate(weak_from_this());
  WebViewConfiguration configuration{.allowsInlineMediaPlayback = true,
                                     .requiresUserActionForMediaPlayback = false,
                                     .userScript = SDKHelper::MRAID::mraidJS().value_or(""),
                                     .isOpaque = false,
                                     .bounces = false,
                                     .allowsZooming = false};
  // Without a key window, the screen's size is the best guess.
  const Size size =
      application.keyWindow() ? applicationFrame(safeArea).size() : application.screenSize();
  webView_ = application.makeWebView({0, 0, size.width, size.height}, std::move(configuration));
  webView_->setDelegate(weak_from_this());
  webView_->setMuted(true);
  webView_->view()->setBackgroundColor(Color::clear);
  view_->addSubview(webView_->view(), Layout::edges(Layout::Area::plain));
}

void KVAWebView::setDelegate(std::weak_ptr<KVAWebViewDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void KVAWebView::loadHTML(const std::string& htmlString, const std::optional<URL>& baseURL) {
  webView_->loadHTML(htmlString, baseURL);
}

bool KVAWebView::executeJavascript(const std::string& script) {
  evaluateJavaScript(script, nullptr);
  return true;
}

void KVAWebView::evaluateJavaScript(const std::string& script, WebView::Evaluated evaluated) {
  webView_->evaluateJavaScript(script, std::move(evaluated));
}

void KVAWebView::viewDidMoveToWindow() {
  if (isMovedToWindow_ || !view_->window()) return;
  isMovedToWindow_ = true;
  webView_->setMuted(false);
}

void KVAWebView::viewWasTouched() {
  if (touched_) touched_();
}

void KVAWebView::webViewDidFinishNavigation() {
  if (auto delegate = delegate_.lock()) delegate->webViewDidFinishLoad(*this);
}

void KVAWebView::webViewDidFailNavigation(const Error& error) {
  if (auto delegate = delegate_.lock()) delegate->webViewDidFailToLoad(*this, error);
}

void KVAWebView::webViewProcessDidTerminate(const Error& error) {
  if (auto delegate = delegate_.lock()) delegate->webViewProcessDidTerminate(*this, error);
}

bool KVAWebView::webViewDecidePolicy(const NavigationAction& action) {
  auto delegate = delegate_.lock();
  if (!delegate) return true;
  if (!delegate->webViewShouldAllowNavigation(*this, action.request)) return false;
  // A link to a new window follows as `webViewCreateWebView`.
  if (action.target == NavigationAction::TargetFrame::none || !action.isFollowedLink) return true;
  if (!leadsOut(action.request->url)) return true;
  delegate->webViewDidFollowLink(*this, action.request->url);
  return false;
}

void KVAWebView::webViewCreateWebView(const NavigationAction& action) {
  if (!action.request) return;
  if (action.target == NavigationAction::TargetFrame::sub) return webView_->load(*action.request);
  auto delegate = delegate_.lock();
  if (delegate && action.target == NavigationAction::TargetFrame::none)
    delegate->webViewDidFollowLink(*this, action.request->url);
}

ScriptDialogAnswer KVAWebView::webViewRunScriptDialog(const ScriptDialog&) {
  return {.confirmed = false, .text = std::nullopt};
}

}  // namespace kva
