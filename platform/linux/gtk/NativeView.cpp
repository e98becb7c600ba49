#include <platform/linux/gtk/NativeView.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <tuple>
#include <utility>

#include <platform/linux/gtk/NativeWindow.h>

namespace kva::gtk {

namespace {

Rect inset(const Rect& rect, const EdgeInsets& by) {
  return {rect.x + by.left, rect.y + by.top, std::max(0.0, rect.width - by.left - by.right),
          std::max(0.0, rect.height - by.top - by.bottom)};
}

Rect place(const Layout& layout, Size superview, const EdgeInsets& safe) {
  Rect area{0, 0, superview.width, superview.height};
  if (layout.area == Layout::Area::safe) area = inset(area, safe);
  if (layout.kind == Layout::Kind::edges || layout.kind == Layout::Kind::standby) return area;
  if (layout.kind == Layout::Kind::frame) return layout.rect;

  using enum Layout::Corner;
  const bool leading = layout.corner == topLeading || layout.corner == bottomLeading;
  const bool top = layout.corner == topLeading || layout.corner == topTrailing;
  const bool left = leading == (gtk_widget_get_default_direction() != GTK_TEXT_DIR_RTL);
  const double width = std::min(layout.rect.width, superview.width);
  const double height = std::min(layout.rect.height, superview.height);
  return {std::clamp(left ? area.x : area.x + area.width - width, 0.0, superview.width - width),
          std::clamp(top ? area.y : area.y + area.height - height, 0.0, superview.height - height),
          width, height};
}

void allocateIn(GtkWidget* child, const Rect& frame) {
  if (!gtk_widget_should_layout(child)) return;
  const graphene_point_t origin{static_cast<float>(std::round(frame.x)),
                                static_cast<float>(std::round(frame.y))};
  gtk_widget_allocate(child, static_cast<int>(std::lround(frame.width)),
                      static_cast<int>(std::lround(frame.height)), -1,
                      gsk_transform_translate(nullptr, &origin));
}

EdgeInsets overlap(const EdgeInsets& insets, const Rect& frame, Size window) {
  return {std::max(0.0, insets.top - frame.y), std::max(0.0, insets.left - frame.x),
          std::max(0.0, frame.y + frame.height - (window.height - insets.bottom)),
          std::max(0.0, frame.x + frame.width - (window.width - insets.right))};
}

/// Draws each part of the picture with this opacity. As a group, the parts would first be drawn
/// into a picture of their own in each frame, which takes long on a processor.
void appendFaded(GtkSnapshot* snapshot, GskRenderNode* picture, double opacity) {
  switch (gsk_render_node_get_node_type(picture)) {
    case GSK_CONTAINER_NODE:
      for (guint i = 0; i < gsk_container_node_get_n_children(picture); ++i)
        appendFaded(snapshot, gsk_container_node_get_child(picture, i), opacity);
      return;
    case GSK_TRANSFORM_NODE:
      gtk_snapshot_save(snapshot);
      gtk_snapshot_transform(snapshot, gsk_transform_node_get_transform(picture));
      appendFaded(snapshot, gsk_transform_node_get_child(picture), opacity);
      gtk_snapshot_restore(snapshot);
      return;
    case GSK_CLIP_NODE:
      gtk_snapshot_push_clip(snapshot, gsk_clip_node_get_clip(picture));
      appendFaded(snapshot, gsk_clip_node_get_child(picture), opacity);
      gtk_snapshot_pop(snapshot);
      return;
    default:
      gtk_snapshot_push_opacity(snapshot, opacity);
      gtk_snapshot_append_node(snapshot, picture);
      gtk_snapshot_pop(snapshot);
  }
}

/// Draws one pixel as a fade draws a page. Nobody sees it, because it is nearly transparent. A
/// renderer compiles the code for such a drawing at its first use, which would delay the first
/// frame of an ad.
void rehearseFade(GtkSnapshot* snapshot) {
  constexpr double kAlmostTransparent = 1.0 / 255;  // GTK leaves out what is below
  const std::uint32_t transparent = 0;
  g_autoptr(GBytes) pixel = g_bytes_new(&transparent, sizeof transparent);
  g_autoptr(GdkTexture) picture =
      gdk_memory_texture_new(1, 1, GDK_MEMORY_DEFAULT, pixel, sizeof transparent);
  const graphene_rect_t bounds{{0, 0}, {1, 1}};
  gtk_snapshot_push_opacity(snapshot, kAlmostTransparent);
  gtk_snapshot_append_texture(snapshot, picture, &bounds);
  gtk_snapshot_pop(snapshot);
}

}  // namespace

NativeView::NativeView(Rect frame) : NativeView(frame, nullptr) {}

NativeView::NativeView(Rect frame, GtkWidget* content)
    : frame_(frame), widget_(sink(layoutWidgetNew(this))), content_(content) {
  if (content_) gtk_widget_set_parent(content_, widget());
  auto* presses = gtk_event_controller_legacy_new();
  gtk_event_controller_set_propagation_phase(presses, GTK_PHASE_CAPTURE);
  presses_ = connect<gboolean(GdkEvent*)>(presses, "event", [this](GdkEvent* event) {
    auto type = gdk_event_get_event_type(event);
    auto self = shared_from_this();
    if (type == GDK_BUTTON_PRESS || type == GDK_TOUCH_BEGIN)
      if (auto delegate = delegate_.lock()) delegate->viewWasTouched();
    return GDK_EVENT_PROPAGATE;
  });
  gtk_widget_add_controller(widget(), presses);
}

NativeView::~NativeView() {
  for (auto& subview : subviews_) {
    subview->superview_.reset();
    gtk_widget_unparent(subview->widget());
  }
  if (content_) gtk_widget_unparent(content_);
  layoutWidgetDropClient(widget());
}

void NativeView::becomeRoot(std::weak_ptr<NativeWindow> window) {
  rootOf_ = std::move(window);
  notifyOfWindow();
}

void NativeView::setRootSize(Size size) { frame_ = {0, 0, size.width, size.height}; }

void NativeView::setTransition(double visible) {
  transition_ = visible;
  gtk_widget_queue_draw(widget());
}

void NativeView::reportTouch() {
  auto self = shared_from_this();
  if (auto superview = superview_.lock()) superview->reportTouch();
  if (auto delegate = delegate_.lock()) delegate->viewWasTouched();
}

void NativeView::addSubview(std::shared_ptr<View> subview, Layout layout) {
  auto child = std::static_pointer_cast<NativeView>(subview);
  const auto before = child->window();
  // A widget that leaves its parent loses what WebKit drew in it.
  if (child->superview_.lock().get() == this)
    std::erase(subviews_, child);
  else
    child->leaveSuperview();
  child->layout_ = layout;
  const bool standsBy = layout.kind == Layout::Kind::standby;
  // The next blank page comes when the page of an ad on standby has loaded; drawing would delay the
  // load. Without an ad, the compiled code would only take memory.
  if (standsBy && child->content_ && hasStandby()) rehearses_ = true;
  gtk_widget_set_can_target(child->widget(), !standsBy);
  gtk_widget_set_can_focus(child->widget(), !standsBy);
  gtk_accessible_update_state(GTK_ACCESSIBLE(child->widget()), GTK_ACCESSIBLE_STATE_HIDDEN,
                              gboolean{standsBy}, -1);
  child->superview_ = weak_from_this();
  subviews_.push_back(child);
  gtk_widget_insert_before(child->widget(), widget(), nullptr);
  relayout();
  if (child->window() != before) child->notifyOfWindow();
}

bool NativeView::hasStandby() const {
  return std::ranges::any_of(
      subviews_, [](auto& view) { return view->layout_.kind == Layout::Kind::standby; });
}

void NativeView::removeFromSuperview() {
  auto self = shared_from_this();
  const bool hadWindow = window() != nullptr;
  leaveSuperview();
  if (hadWindow) notifyOfWindow();
}

void NativeView::leaveSuperview() {
  auto superview = superview_.lock();
  if (!superview) return;
  frame_ = frame();
  superview_.reset();
  gtk_widget_unparent(widget());
  std::erase_if(superview->subviews_, [this](auto& subview) { return subview.get() == this; });
}

void NativeView::sendToBack() {
  auto superview = superview_.lock();
  if (!superview) return;
  auto& views = superview->subviews_;
  auto self = std::ranges::find(views, this, [](auto& view) { return view.get(); });
  std::rotate(views.begin(), self, self + 1);
  gtk_widget_insert_after(widget(), superview->widget(), superview->content_);
}

void NativeView::bringToFront() {
  auto superview = superview_.lock();
  if (!superview) return;
  auto& views = superview->subviews_;
  auto self = std::ranges::find(views, this, [](auto& view) { return view.get(); });
  std::rotate(self, self + 1, views.end());
  gtk_widget_insert_before(widget(), superview->widget(), nullptr);
}

std::shared_ptr<NativeWindow> NativeView::nativeWindow() const {
  auto superview = superview_.lock();
  return superview ? superview->nativeWindow() : rootOf_.lock();
}

std::shared_ptr<Window> NativeView::window() const {
  auto superview = superview_.lock();
  if (!superview) return rootOf_.lock();
  return layout_.kind == Layout::Kind::standby ? nullptr : superview->window();
}

void NativeView::notifyOfWindow() {
  auto self = shared_from_this();
  if (auto delegate = delegate_.lock()) delegate->viewDidMoveToWindow();
  // A delegate may move subviews. One that left this view has been notified already.
  for (auto& subview : std::vector(subviews_))
    if (subview->superview_.lock() == self) subview->notifyOfWindow();
}

Rect NativeView::frame() const {
  auto superview = superview_.lock();
  if (!superview) return frame_;
  return place(layout_, superview->frame().size(), superview->safeAreaInsets());
}

std::optional<Rect> NativeView::frameInWindow() const {
  auto superview = superview_.lock();
  if (!superview) return rootOf_.expired() ? std::nullopt : std::optional(frame_);
  auto outer = superview->frameInWindow();
  if (!outer) return std::nullopt;
  auto own = frame();
  return Rect{outer->x + own.x, outer->y + own.y, own.width, own.height};
}

EdgeInsets NativeView::safeAreaInsets() const {
  auto window = nativeWindow();
  if (!window) return {};
  return overlap(window->safeAreaInsets(), *frameInWindow(), window->frame().size());
}

void NativeView::setHidden(bool hidden) {
  gtk_widget_set_visible(widget(), !hidden);
  relayout();
}

// GTK passes a layout request up only to the first widget that has a request pending. A widget
// that has not been measured since keeps its request pending, and so blocks later requests from
// below. Therefore request a layout of each view up to the window.
void NativeView::relayout() {
  gtk_widget_queue_allocate(widget());
  if (auto superview = superview_.lock()) return superview->relayout();
  if (auto window = rootOf_.lock()) window->relayout();
}

bool NativeView::isHidden() const { return !gtk_widget_get_visible(widget()); }

void NativeView::setAlpha(double alpha) { gtk_widget_set_opacity(widget(), alpha); }

void NativeView::setBackgroundColor(Color color) {
  background_ = color;
  gtk_widget_queue_draw(widget());
}

void NativeView::setClipsToBounds(bool clips) {
  gtk_widget_set_overflow(widget(), clips ? GTK_OVERFLOW_HIDDEN : GTK_OVERFLOW_VISIBLE);
}

void NativeView::allocate(Size size) {
  if (content_) allocateIn(content_, {0, 0, size.width, size.height});
  for (auto& subview : subviews_) {
    Rect place = subview->frame();
    // Outside the window's bounds WebKit still lays out and draws the page. At opacity 0 it would
    // not: GTK then requests no frame, and the page waits for its previous frame.
    if (subview->layout_.kind == Layout::Kind::standby) place.x -= place.x + place.width;
    allocateIn(subview->widget(), place);
  }
}

void NativeView::snapshot(GtkSnapshot* snapshot) {
  if (std::exchange(rehearses_, false)) rehearseFade(snapshot);
  if (transition_ == 1) return draw(snapshot);
  auto* picture = gtk_snapshot_new();
  draw(picture);
  if (auto* node = gtk_snapshot_free_to_node(picture)) {
    appendFaded(snapshot, node, transition_);
    gsk_render_node_unref(node);
  }
}

void NativeView::draw(GtkSnapshot* snapshot) {
  if (background_ == Color::black) drawBackground(snapshot);
  for (auto* child = gtk_widget_get_first_child(widget()); child;
       child = gtk_widget_get_next_sibling(child))
    gtk_widget_snapshot_child(widget(), child, snapshot);
}

// In a fade, a page has no black below it: pages are opaque, and the black would darken the fade.
void NativeView::drawBackground(GtkSnapshot* snapshot) {
  const auto width = static_cast<float>(gtk_widget_get_width(widget()));
  const auto height = static_cast<float>(gtk_widget_get_height(widget()));
  graphene_rect_t page{};
  if (auto* painted = transition_ < 1 ? paintedContent() : nullptr)
    std::ignore = gtk_widget_compute_bounds(painted, widget(), &page);
  const float left = page.origin.x, right = left + page.size.width;
  const float top = page.origin.y, bottom = top + page.size.height;
  const GdkRGBA black{0, 0, 0, 1};
  for (const graphene_rect_t& bar :
       {graphene_rect_t{{0, 0}, {width, top}}, graphene_rect_t{{0, top}, {left, bottom - top}},
        graphene_rect_t{{right, top}, {width - right, bottom - top}},
        graphene_rect_t{{0, bottom}, {width, height - bottom}}})
    gtk_snapshot_append_color(snapshot, &black, &bar);
}

// WebKit paints nothing before a page's first frame and after the end of its process.
GtkWidget* NativeView::paintedContent() const {
  if (content_) {
    auto* picture = gtk_snapshot_new();
    gtk_widget_snapshot_child(widget(), content_, picture);
    auto* painted = gtk_snapshot_free_to_node(picture);
    if (painted) gsk_render_node_unref(painted);
    return painted ? content_ : nullptr;
  }
  for (const auto& subview : subviews_)
    if (auto* painted = subview->paintedContent()) return painted;
  return nullptr;
}

bool NativeView::takesPresses() const {
  auto window = rootOf_.lock();
  return !window || window->isCovered();
}

bool NativeView::keepsFocus() const {
  auto window = rootOf_.lock();
  return window && window->isCovered();
}

}  // namespace kva::gtk
