#include <platform/headless/Application.h>

#include <algorithm>
#include <utility>

namespace kva::headless {

template <class T>
std::vector<std::shared_ptr<T>> HeadlessApplication::live() const {
  std::vector<std::shared_ptr<T>> found;
  for (const auto& weak : views_)
    if (auto view = std::dynamic_pointer_cast<T>(weak.lock())) found.push_back(std::move(view));
  return found;
}

std::shared_ptr<HeadlessWindow> HeadlessApplication::makeWindow(Rect frame,
                                                                EdgeInsets safeAreaInsets) {
  std::erase_if(windows_, [](const auto& window) { return window->isDestroyed(); });
  windows_.push_back(HeadlessWindow::create(time_, frame, safeAreaInsets));
  keyWindow_ = windows_.back();
  return windows_.back();
}

void HeadlessApplication::setState(State state) {
  if (std::exchange(state_, state) != state && stateChanged_) stateChanged_();
}

std::shared_ptr<Window> HeadlessApplication::keyWindow() const {
  auto window = keyWindow_.lock();
  return window && !window->isDestroyed() ? window : nullptr;
}

std::shared_ptr<View> HeadlessApplication::makeView(Rect frame) {
  auto view = std::make_shared<HeadlessView>(frame);
  views_.push_back(view);
  return view;
}

std::shared_ptr<Button> HeadlessApplication::makeButton() {
  auto button = std::make_shared<HeadlessButton>();
  views_.push_back(button);
  return button;
}

std::shared_ptr<WebView> HeadlessApplication::makeWebView(Rect frame,
                                                          WebViewConfiguration configuration) {
  auto webView = std::make_shared<HeadlessWebView>(time_, frame, std::move(configuration));
  views_.push_back(webView);
  return webView;
}

std::shared_ptr<ViewController> HeadlessApplication::makeViewController() {
  auto controller = std::make_shared<HeadlessViewController>(time_);
  viewControllers_.push_back(controller);
  views_.push_back(std::dynamic_pointer_cast<HeadlessView>(controller->view()));
  return controller;
}

int HeadlessApplication::liveViews() const { return static_cast<int>(live<HeadlessView>().size()); }

int HeadlessApplication::liveViewControllers() const {
  return static_cast<int>(
      std::ranges::count_if(viewControllers_, [](const auto& weak) { return !weak.expired(); }));
}

std::shared_ptr<HeadlessWebView> HeadlessApplication::webView() const {
  const auto all = live<HeadlessWebView>();
  return all.empty() ? nullptr : all.back();
}

std::shared_ptr<HeadlessButton> HeadlessApplication::button(std::string_view imageName) const {
  const auto all = live<HeadlessButton>();
  const auto found = std::find_if(all.rbegin(), all.rend(), [&](const auto& button) {
    return button->image().name == imageName;
  });
  return found == all.rend() ? nullptr : *found;
}

}  // namespace kva::headless
