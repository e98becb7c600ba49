#include <Kelvara/presentation/KVAWebView.h>

#include <utility>

#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/presentation/ApplicationFrame.h>

namespace kva {

std::shared_ptr<KVAWebView> KVAWebView::create(Rect frame) {
  std::shared_ptr<KVAWebView> host(new KVAWebView);
  host->setup(frame);
  return host;
}

KVAWebView::~KVAWebView() {
  webView_->view()->removeFromSuperview();
  offscreenView_->removeFromSuperview();
}

void KVAWebView::setup(Rect frame) {
  HostApplication& application = hostApplication();
  view_ = application.makeView(frame);
  view_->setDelegate(weak_from_this());
  WebViewConfiguration configuration{.allowsInlineMediaPlayback = true,
                                     .requiresUserActionForMediaPlayback = false,
                                     .userScript = SDKHelper::MRAID::mraidJS().value_or(""),
                                     .isOpaque = false,
                                     .bounces = false,
                                     .allowsZooming = false};
  webView_ = application.makeWebView({0, 0, frame.width, frame.height}, std::move(configuration));
  webView_->setDelegate(weak_from_this());
  webView_->view()->setBackgroundColor(Color::clear);
  setupOffsceen();
}

// The name, one letter short, is intended.
void KVAWebView::setupOffsceen() {
  HostApplication& application = hostApplication();
  offscreenView_ = application.makeView({});
  offscreenView_->setClipsToBounds(true);
  if (auto window = application.keyWindow())
    window->view()->addSubview(offscreenView_, Layout::frame({}));
  auto page = webView_->view();
  offscreenView_->addSubview(page, Layout::frame(page->frame()));
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
  auto page = webView_->view();
  if (isMovedToWindow_ || !view_->window() || page->superview() != offscreenView_) return;
  isMovedToWindow_ = true;
  view_->addSubview(page, Layout::edges(Layout::Area::plain));
}

void KVAWebView::webViewDidFinishNavigation() {
  if (auto delegate = delegate_.lock()) delegate->webViewDidFinishLoad(*this);
}

void KVAWebView::webViewDidFailNavigation(const Error& error) {
  if (auto delegate = delegate_.lock()) delegate->webViewDidFailToLoad(*this, error);
}

bool KVAWebView::webViewDecidePolicy(const NavigationAction& action) {
  auto delegate = delegate_.lock();
  return !delegate || delegate->webViewShouldAllowNavigation(*this, action.request);
}

void KVAWebView::webViewCreateWebView(const NavigationAction& action) {
  if (action.target == NavigationAction::TargetFrame::sub && action.request)
    webView_->load(*action.request);
}

ScriptDialogAnswer KVAWebView::webViewRunScriptDialog(const ScriptDialog&) {
  return {.confirmed = false, .text = std::nullopt};
}

}  // namespace kva
