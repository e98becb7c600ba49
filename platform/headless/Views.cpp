#include <platform/headless/Views.h>

#include <algorithm>
#include <utility>

namespace kva::headless {
namespace {

constexpr double kClear = 0.01;  // below it a view is invisible and receives no touches

Rect inset(Size size, EdgeInsets insets) {
  return {insets.left, insets.top, std::max(0.0, size.width - insets.left - insets.right),
          std::max(0.0, size.height - insets.top - insets.bottom)};
}

Rect place(const Layout& layout, Rect area, Size superview) {
  using Corner = Layout::Corner;
  switch (layout.kind) {
    case Layout::Kind::frame:
      return layout.rect;
    case Layout::Kind::edges:
    case Layout::Kind::standby:
      return area;
    case Layout::Kind::corner:
      break;
  }
  Rect rect{area.x, area.y, std::min(layout.rect.width, superview.width),
            std::min(layout.rect.height, superview.height)};
  if (layout.corner == Corner::topTrailing || layout.corner == Corner::bottomTrailing)
    rect.x += area.width - rect.width;
  if (layout.corner == Corner::bottomLeading || layout.corner == Corner::bottomTrailing)
    rect.y += area.height - rect.height;
  rect.x = std::clamp(rect.x, 0.0, superview.width - rect.width);
  rect.y = std::clamp(rect.y, 0.0, superview.height - rect.height);
  return rect;
}

bool contains(Size size, Point point) {
  return point.x >= 0 && point.y >= 0 && point.x < size.width && point.y < size.height;
}

}  // namespace

void HeadlessView::setDelegate(std::weak_ptr<ViewDelegate> delegate) {
  delegate_ = std::move(delegate);
}

std::shared_ptr<HeadlessWindow> HeadlessView::headlessWindow() const {
  if (auto window = rootOf_.lock()) return window;
  auto above = superview_.lock();
  return above ? above->headlessWindow() : nullptr;
}

std::shared_ptr<Window> HeadlessView::window() const {
  if (layout_.kind == Layout::Kind::standby) return nullptr;
  auto above = superview_.lock();
  return above ? above->window() : headlessWindow();
}

HeadlessView::Chain HeadlessView::subtree() {
  Chain all{shared_from_this()};
  for (const auto& below : subviews_) std::ranges::copy(below->subtree(), std::back_inserter(all));
  return all;
}

HeadlessView::Chain HeadlessView::path() {
  auto above = superview_.lock();
  Chain path = above ? above->path() : Chain{};
  path.push_back(shared_from_this());
  return path;
}

void HeadlessView::notifyMoved(const Chain& views) {
  for (const auto& view : views)
    if (auto delegate = view->delegate_.lock()) delegate->viewDidMoveToWindow();
}

void HeadlessView::touch(const Chain& chain) {
  for (const auto& view : chain)
    if (auto delegate = view->delegate_.lock()) delegate->viewWasTouched();
}

void HeadlessView::detach() {
  layout_ = Layout::frame(frame());
  if (auto above = superview_.lock()) std::erase(above->subviews_, shared_from_this());
  superview_.reset();
}

void HeadlessView::addSubview(std::shared_ptr<View> subview, Layout layout) {
  auto added = std::dynamic_pointer_cast<HeadlessView>(subview);
  const auto before = added->window();
  added->detach();
  added->superview_ = weak_from_this();
  added->layout_ = layout;
  subviews_.push_back(added);
  if (added->window() != before) notifyMoved(added->subtree());
}

void HeadlessView::removeFromSuperview() {
  const auto self = shared_from_this();  // the superview may have been the only owner
  const bool wasInWindow = window() != nullptr;
  detach();
  if (wasInWindow) notifyMoved(subtree());
}

void HeadlessView::sendToBack() {
  auto above = superview_.lock();
  if (!above) return;
  auto& siblings = above->subviews_;
  auto self = std::ranges::find(siblings, shared_from_this());
  std::rotate(siblings.begin(), self, self + 1);
}

void HeadlessView::bringToFront() {
  auto above = superview_.lock();
  if (!above) return;
  auto& siblings = above->subviews_;
  auto self = std::ranges::find(siblings, shared_from_this());
  std::rotate(self, self + 1, siblings.end());
}

Rect HeadlessView::frame() const {
  auto root = rootOf_.lock();
  if (root) return {0, 0, root->frame().width, root->frame().height};
  auto above = superview_.lock();
  if (!above) return layout_.rect;
  auto window = headlessWindow();
  const bool safe = layout_.area == Layout::Area::safe && window;
  const Size size = above->frame().size();
  return place(layout_, inset(size, safe ? window->safeAreaInsets() : EdgeInsets{}), size);
}

std::optional<Rect> HeadlessView::frameInWindow() const {
  if (!headlessWindow()) return std::nullopt;
  Rect rect = frame();
  for (auto above = superview_.lock(); above; above = above->superview_.lock()) {
    rect.x += above->frame().x;
    rect.y += above->frame().y;
  }
  return rect;
}

bool HeadlessView::isShown() const {
  if (hidden_ || alpha_ < kClear || layout_.kind == Layout::Kind::standby) return false;
  if (rootOf_.lock()) return true;
  auto above = superview_.lock();
  return above && above->isShown();
}

bool HeadlessView::hitTest(Point point, Chain& chain) {
  const Rect place = frame();
  const Point inside{point.x - place.x, point.y - place.y};
  if (hidden_ || alpha_ < kClear || layout_.kind == Layout::Kind::standby ||
      !contains(place.size(), inside))
    return false;
  chain.push_back(shared_from_this());
  for (auto below = subviews_.rbegin(); below != subviews_.rend(); ++below)
    if ((*below)->hitTest(inside, chain)) break;
  return true;
}

bool HeadlessButton::setImage(Image image, EdgeInsets insets) {
  image_ = std::move(image);
  insets_ = insets;
  return std::filesystem::exists(image_.bundle / (image_.name + ".png"));
}

void HeadlessButton::setAction(std::function<void()> touchedUpInside) {
  action_ = std::move(touchedUpInside);
}

void HeadlessButton::activate() {
  if (auto action = action_) action();
}

}  // namespace kva::headless
