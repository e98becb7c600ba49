#include <platform/headless/WebViews.h>

namespace kva::headless {
namespace {

NavigationAction makeAction(const std::string& text, NavigationAction::TargetFrame target) {
  NavigationAction action{.request = std::nullopt, .target = target, .isFollowedLink = false};
  if (auto url = URL::parse(text))
    action.request = URLRequest{.url = *url, .method = "GET", .headers = {}, .body = {}};
  return action;
}

}  // namespace

HeadlessWebView::HeadlessWebView(VirtualTime& time, Rect frame, WebViewConfiguration configuration)
    : HeadlessView(frame), time_(time), configuration_(std::move(configuration)) {}

void HeadlessWebView::setDelegate(std::weak_ptr<WebViewDelegate> delegate) {
  pageDelegate_ = std::move(delegate);
}

void HeadlessWebView::loadHTML(const std::string& html, const std::optional<URL>& baseURL) {
  loads_.push_back({.html = html, .baseURL = baseURL, .request = std::nullopt});
}

void HeadlessWebView::load(const URLRequest& request) {
  loads_.push_back({.html = std::nullopt, .baseURL = std::nullopt, .request = request});
}

void HeadlessWebView::evaluateJavaScript(const std::string& script, Evaluated evaluated) {
  scripts_.push_back(script);
  if (!evaluated) return;
  time_.after(0, [evaluated = std::move(evaluated), answer = answer_, script]() mutable {
    evaluated(answer ? answer(script) : Result<std::string>("null"));
  });
}

std::string HeadlessWebView::html() const {
  for (auto load = loads_.rbegin(); load != loads_.rend(); ++load)
    if (load->html) return *load->html;
  return {};
}

void HeadlessWebView::finishNavigation() {
  if (auto delegate = pageDelegate_.lock()) delegate->webViewDidFinishNavigation();
}

void HeadlessWebView::failNavigation(const Error& error) {
  if (auto delegate = pageDelegate_.lock()) delegate->webViewDidFailNavigation(error);
}

void HeadlessWebView::terminateProcess() {
  if (auto delegate = pageDelegate_.lock())
    delegate->webViewProcessDidTerminate({"test", 1, "The page's process has ended."});
}

bool HeadlessWebView::followLink(const std::string& url, NavigationAction::TargetFrame target) {
  auto delegate = pageDelegate_.lock();
  auto action = makeAction(url, target);
  action.isFollowedLink = true;
  return !delegate || delegate->webViewDecidePolicy(action);
}

bool HeadlessWebView::navigate(const std::string& url, NavigationAction::TargetFrame target) {
  auto delegate = pageDelegate_.lock();
  return !delegate || delegate->webViewDecidePolicy(makeAction(url, target));
}

void HeadlessWebView::createWebView(const std::string& url, NavigationAction::TargetFrame target) {
  if (auto delegate = pageDelegate_.lock()) delegate->webViewCreateWebView(makeAction(url, target));
}

ScriptDialogAnswer HeadlessWebView::dialog(const ScriptDialog& dialog) {
  auto delegate = pageDelegate_.lock();
  return delegate ? delegate->webViewRunScriptDialog(dialog) : ScriptDialogAnswer{};
}

}  // namespace kva::headless
