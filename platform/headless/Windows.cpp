#include <algorithm>
#include <utility>

#include <Kelvara/base/Fatal.h>
#include <platform/headless/Views.h>

namespace kva::headless {

HeadlessWindow::HeadlessWindow(Rect frame, EdgeInsets safeAreaInsets)
    : frame_(frame),
      safeAreaInsets_(safeAreaInsets),
      root_(std::make_shared<HeadlessView>(Rect{0, 0, frame.width, frame.height})) {}

std::shared_ptr<HeadlessWindow> HeadlessWindow::create(VirtualTime& time, Rect frame,
                                                       EdgeInsets safeAreaInsets) {
  std::shared_ptr<HeadlessWindow> window(new HeadlessWindow(frame, safeAreaInsets));
  window->root_->rootOf_ = window;
  window->host_ = std::make_shared<HeadlessViewController>(time);
  window->host_->presentedIn_ = window;
  window->root_->addSubview(window->host_->view_, Layout::edges(Layout::Area::plain));
  return window;
}

std::shared_ptr<HeadlessViewController> HeadlessWindow::topController() const {
  return presented_.empty() ? host_ : presented_.back();
}

void HeadlessWindow::destroy() {
  if (std::exchange(destroyed_, true)) return;
  const auto self = shared_from_this();
  const auto views = root_->subtree();
  root_->rootOf_.reset();
  HeadlessView::notifyMoved(views);
  while (!presented_.empty()) {
    auto top = std::move(presented_.back());
    presented_.pop_back();
    top->tearDown();
  }
  host_->presentedIn_.reset();
  while (!root_->subviews_.empty()) root_->subviews_.back()->removeFromSuperview();
}

void HeadlessWindow::setOnScreen(bool isOnScreen) {
  if (std::exchange(isOnScreen_, isOnScreen) == isOnScreen) return;
  for (const auto& controller : std::vector(presented_)) controller->onScreenDidChange();
}

bool HeadlessWindow::tap(Point point) {
  HeadlessView::Chain chain;
  if (destroyed_ || !root_->hitTest(point, chain)) return false;
  HeadlessView::touch(chain);
  chain.back()->activate();
  return chain.size() > 1;
}

bool HeadlessWindow::tap(const std::shared_ptr<View>& view) {
  const auto place = view->window() == shared_from_this() ? view->frameInWindow() : std::nullopt;
  if (!place) return false;
  const Point middle{place->x + place->width / 2, place->y + place->height / 2};
  HeadlessView::Chain chain;
  if (!root_->hitTest(middle, chain) || std::ranges::find(chain, view) == chain.end()) return false;
  return tap(middle);
}

bool HeadlessWindow::activate(const std::shared_ptr<Button>& button) {
  auto view = std::dynamic_pointer_cast<HeadlessView>(button->view());
  if (!view->isShown() || view->headlessWindow() != shared_from_this()) return false;
  HeadlessView::touch(view->path());
  view->activate();
  return true;
}

void HeadlessWindow::pressEscape() {
  if (destroyed_) return;
  if (auto delegate = topController()->delegate_.lock()) delegate->viewControllerDidRequestCancel();
}

HeadlessViewController::HeadlessViewController(VirtualTime& time)
    : time_(time), view_(std::make_shared<HeadlessView>(Rect{})) {}

void HeadlessViewController::setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

void HeadlessViewController::present(std::shared_ptr<ViewController> controller,
                                     std::move_only_function<void()> completed) {
  auto presented = std::dynamic_pointer_cast<HeadlessViewController>(controller);
  if (presented->isPresented_) fatal("a view controller was presented twice");
  auto window = presentedIn_.lock();
  if (!window) fatal("a view controller without a window presented another");
  presented->isPresented_ = true;
  presented->presentedIn_ = window;
  presented->presented_ = std::move(completed);
  window->presented_.push_back(presented);
  if (window->isOnScreen()) presented->appear();
  window->root_->addSubview(presented->view_, Layout::edges(Layout::Area::plain));
}

void HeadlessViewController::appear() {
  presentation_ = time_.schedule(kAnimation, Repeats::no, [this] {
    if (auto presented = std::exchange(presented_, nullptr)) presented();
  });
}

void HeadlessViewController::onScreenDidChange() {
  if (presented_ && presentedIn_.lock()->isOnScreen()) return appear();
  presentation_.invalidate();
  if (auto delegate = delegate_.lock(); delegate && !presented_)
    delegate->viewControllerDidChangeOnScreen();
}

void HeadlessViewController::dismiss(std::move_only_function<void()> completed) {
  if (!isPresented_) {
    time_.after(0, [completed = std::move(completed)]() mutable {
      if (completed) completed();
    });
    return;
  }
  dismissed_.push_back(std::move(completed));
  if (dismissal_) return;
  dismissal_ = time_.schedule(kAnimation, Repeats::no, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->finishDismissal();
  });
}

void HeadlessViewController::finishDismissal() {
  const auto self = shared_from_this();
  dismissal_.invalidate();
  presentation_.invalidate();
  presented_ = nullptr;
  if (auto window = presentedIn_.lock()) std::erase(window->presented_, self);
  presentedIn_.reset();
  view_->removeFromSuperview();
  isPresented_ = false;
  for (auto& completed : std::exchange(dismissed_, {}))
    if (completed) completed();
}

void HeadlessViewController::tearDown() {
  presentation_.invalidate();
  presented_ = nullptr;
  dismissal_.invalidate();
  const auto dropped = std::exchange(dismissed_, {});
  presentedIn_.reset();
  view_->removeFromSuperview();
  isPresented_ = false;
  if (auto delegate = delegate_.lock()) delegate->viewControllerWasTornDown();
}

}  // namespace kva::headless
