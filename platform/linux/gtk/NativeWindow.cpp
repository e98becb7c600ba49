#include <platform/linux/gtk/NativeWindow.h>

#include <algorithm>

#include <platform/linux/gtk/NativeViewController.h>

namespace kva::gtk {

namespace {

constexpr auto kModifiers = GdkModifierType(GDK_CONTROL_MASK | GDK_ALT_MASK | GDK_SHIFT_MASK |
                                            GDK_SUPER_MASK | GDK_META_MASK);

#if GTK_CHECK_VERSION(4, 12, 0)
constexpr int kUnseen = GDK_TOPLEVEL_STATE_MINIMIZED | GDK_TOPLEVEL_STATE_SUSPENDED;
#else
constexpr int kUnseen = GDK_TOPLEVEL_STATE_MINIMIZED;
#endif

/// The height of the title bar that GTK draws without a window manager; 0 without one.
int plainTitleBarHeight(GtkWindow* window) {
  for (auto* child = gtk_widget_get_first_child(GTK_WIDGET(window)); child;
       child = gtk_widget_get_next_sibling(child)) {
    if (!gtk_widget_has_css_class(child, "default-decoration")) continue;
    if (!gtk_widget_get_visible(child) || !gtk_widget_get_child_visible(child)) continue;
    return gtk_widget_get_allocated_height(child);
  }
  return 0;
}

/// Whether a page's text field opens a menu or an emoji chooser of GTK for this key.
bool opensPopup(guint key, int modifiers) {
  if (key == GDK_KEY_Menu) return true;
  if (key == GDK_KEY_F10) return modifiers == GDK_SHIFT_MASK;
  return (key == GDK_KEY_period || key == GDK_KEY_semicolon) && (modifiers & GDK_CONTROL_MASK);
}

}  // namespace

std::shared_ptr<NativeWindow> NativeWindow::create(GtkWindow* window, EdgeInsets safeAreaInsets,
                                                   Events events) {
  std::shared_ptr<NativeWindow> made(new NativeWindow(window, safeAreaInsets, std::move(events)));
  made->observe();
  return made;
}

NativeWindow::NativeWindow(GtkWindow* window, EdgeInsets safeAreaInsets, Events events)
    : window_(window), safeAreaInsets_(safeAreaInsets), events_(std::move(events)) {}

NativeWindow::~NativeWindow() {
  if (window_) detach();
}

void NativeWindow::observe() {
  connections_.push_back(connect<void()>(window_, "destroy", [this] { leave(); }));
  connections_.push_back(connect<void()>(window_, "map", [this] {
    observeSurface();
    if (!contentShows_) showBelow(false);
    events_.shown(*this);
    didChange();
  }));
  connections_.push_back(connect<void()>(window_, "unmap", [this] {
    // A window that is mapped again maps its child, which must be visible then.
    if (!contentShows_) setContentVisible(true);
    didChange();
  }));
  connections_.push_back(connect<void(GParamSpec*)>(window_, "notify::is-active",
                                                    [this](GParamSpec*) { events_.changed(); }));
  if (!gtk_widget_get_mapped(GTK_WIDGET(window_))) return;
  observeSurface();
  lastFrame_ = frame();
  wasOnScreen_ = isOnScreen();
}

// A window gets a new surface each time it is realized. GTK's own handler of "layout" runs first
// and lays out the window.
void NativeWindow::observeSurface() {
  auto* surface = gtk_native_get_surface(GTK_NATIVE(window_));
  surfaceConnections_.clear();
  surfaceConnections_.push_back(
      connect<void(int, int)>(surface, "layout", [this](int, int) { didChange(); }));
  surfaceConnections_.push_back(
      connect<void(GParamSpec*)>(surface, "notify::state", [this](GParamSpec*) { didChange(); }));
}

void NativeWindow::didChange() {
  auto self = shared_from_this();
  const bool showsOrHides = std::exchange(wasOnScreen_, isOnScreen()) != wasOnScreen_;
  const bool isResized = std::exchange(lastFrame_, frame()) != lastFrame_;
  if (showsOrHides)
    for (const auto& controller : std::vector(controllers_)) controller->onScreenDidChange();
  if (showsOrHides || isResized) events_.changed();
}

bool NativeWindow::isOnScreen() const {
  if (!window_ || !gtk_widget_get_mapped(GTK_WIDGET(window_))) return false;
  auto* surface = gtk_native_get_surface(GTK_NATIVE(window_));
  return !(gdk_toplevel_get_state(GDK_TOPLEVEL(surface)) & kUnseen);
}

Rect NativeWindow::frame() const {
  if (layer_) return layer_->frame();
  if (!window_) return {};
  if (gtk_widget_get_width(GTK_WIDGET(window_)) == 0) return frameBeforeLayout();
  const int height = gtk_widget_get_height(GTK_WIDGET(window_)) - plainTitleBarHeight(window_);
  return {0, 0, static_cast<double>(gtk_widget_get_width(GTK_WIDGET(window_))),
          static_cast<double>(std::max(0, height))};
}

// The size that the host has asked for.
Rect NativeWindow::frameBeforeLayout() const {
  int width = 0, height = 0;
  gtk_window_get_default_size(window_, &width, &height);
  return {0, 0, static_cast<double>(std::max(0, width)), static_cast<double>(std::max(0, height))};
}

std::shared_ptr<View> NativeWindow::view() {
  if (!layer_) attach();
  return layer_;
}

void NativeWindow::attach() {
  const Size size = frame().size();
  layer_ = std::make_shared<NativeView>(Rect{});
  if (!window_) return;
  layer_->setRootSize(size);
  layer_->becomeRoot(weak_from_this());
  auto* window = GTK_WIDGET(window_);
  gtk_widget_insert_before(layer_->widget(), window, nullptr);
  gtk_widget_set_layout_manager(
      window, windowLayoutNew([this](int width, int height) { placeLayer(width, height); }));
  for (auto* property : {"notify::child", "notify::titlebar"})
    connections_.push_back(
        connect<void(GParamSpec*)>(window, property, [this](GParamSpec*) { contentChanged(); }));
  connections_.push_back(connect<void(GParamSpec*)>(window, "notify::focus-widget",
                                                    [this](GParamSpec*) { focusChanged(); }));
  gtk_widget_queue_resize(window);
}

// GTK runs the newest controller of a window first. So while an ad is shown, this one takes every
// key before the accelerators of the host's application, which run in the same phase.
void NativeWindow::addKeys() {
  using Pressed = gboolean(guint, guint, GdkModifierType);
  using Released = void(guint, guint, GdkModifierType);
  keys_ = gtk_event_controller_key_new();
  gtk_event_controller_set_propagation_phase(keys_, GTK_PHASE_CAPTURE);
  keyPressed_ = connect<Pressed>(
      keys_, "key-pressed",
      [this](guint key, guint, GdkModifierType held) { return takeKey(key, held); });
  keyReleased_ = connect<Released>(keys_, "key-released",
                                   [this](guint, guint, GdkModifierType) { forwardKey(); });
  gtk_widget_add_controller(GTK_WIDGET(window_), keys_);
}

void NativeWindow::removeKeys() {
  keyPressed_ = {};
  keyReleased_ = {};
  gtk_widget_remove_controller(GTK_WIDGET(window_), std::exchange(keys_, nullptr));
}

void NativeWindow::detach() {
  connections_.clear();
  surfaceConnections_.clear();
  if (keys_) removeKeys();
  if (layer_) {
    gtk_widget_unparent(layer_->widget());
    gtk_widget_set_layout_manager(GTK_WIDGET(window_), nullptr);
  }
  window_ = nullptr;
}

void NativeWindow::leave() {
  if (!window_) return;
  auto self = shared_from_this();
  if (!contentShows_) showBelow(true);
  if (isCovered() && !gtk_widget_in_destruction(GTK_WIDGET(window_))) restoreFocus();
  detach();
  // First, because the delegates that are notified below must not find this window any more.
  events_.destroyed(*this);
  while (!controllers_.empty()) {
    auto controller = std::move(controllers_.back());
    controllers_.pop_back();
    controller->windowIsGone();
  }
  if (!layer_) return;
  layer_->becomeRoot({});
  events_.changed();
}

void NativeWindow::relayout() {
  if (!window_) return;
  gtk_widget_queue_allocate(GTK_WIDGET(window_));
  gtk_widget_queue_resize(GTK_WIDGET(window_));
}

void NativeWindow::placeLayer(int width, int height) {
  const int top = plainTitleBarHeight(window_);
  height = std::max(0, height - top);
  layer_->setRootSize({static_cast<double>(width), static_cast<double>(height)});
  int minimum = 0;
  auto* layer = layer_->widget();
  gtk_widget_measure(layer, GTK_ORIENTATION_HORIZONTAL, -1, &minimum, nullptr, nullptr, nullptr);
  gtk_widget_measure(layer, GTK_ORIENTATION_VERTICAL, -1, &minimum, nullptr, nullptr, nullptr);
  const graphene_point_t origin{0, static_cast<float>(top)};
  gtk_widget_allocate(layer, width, height, -1, gsk_transform_translate(nullptr, &origin));
}

void NativeWindow::contentChanged() {
  gtk_widget_insert_before(layer_->widget(), GTK_WIDGET(window_), nullptr);
  if (!contentShows_) showBelow(false);
}

void NativeWindow::showBelow(bool visible) {
  contentShows_ = visible;
  setContentVisible(visible);
}

// Assistive technology reads content that is not drawn too, and could activate it.
void NativeWindow::setContentVisible(bool visible) {
  if (auto hidden = hiddenContent_.get())
    gtk_accessible_reset_state(GTK_ACCESSIBLE(hidden.get()), GTK_ACCESSIBLE_STATE_HIDDEN);
  auto* content = gtk_window_get_child(window_);
  hiddenContent_.set(visible ? nullptr : content);
  if (!content) return;
  gtk_widget_set_child_visible(content, visible);
  if (!visible)
    gtk_accessible_update_state(GTK_ACCESSIBLE(content), GTK_ACCESSIBLE_STATE_HIDDEN,
                                gboolean{TRUE}, -1);
}

void NativeWindow::cover(std::shared_ptr<NativeViewController> controller) {
  if (!isCovered()) {
    hostFocus_.set(gtk_window_get_focus(window_));
    hostFocusVisible_ = gtk_window_get_focus_visible(window_);
    addKeys();
  }
  view()->addSubview(controller->view(), Layout::edges(Layout::Area::plain));
  controllers_.push_back(std::move(controller));
  focusCover();
  if (controllers_.size() == 1) events_.covered(*this);
}

bool NativeWindow::isAnimating() const {
  return std::ranges::any_of(controllers_, [](auto& one) { return one->isAnimating(); });
}

void NativeWindow::didCover() { showBelow(false); }

void NativeWindow::willUncover(const NativeViewController& controller) {
  if (controllers_.size() == 1 && controllers_.back().get() == &controller) showBelow(true);
}

void NativeWindow::uncover(const NativeViewController& controller) {
  std::erase_if(controllers_, [&](auto& one) { return one.get() == &controller; });
  if (isCovered()) return focusCover();
  removeKeys();
  restoreFocus();
  events_.covered(*this);
}

void NativeWindow::cancelRequested() {
  if (!isCovered()) return;
  auto top = controllers_.back();
  top->cancelRequested();
}

void NativeWindow::restoreFocus() {
  auto focus = hostFocus_.get();
  const bool isThere = focus && gtk_widget_get_root(focus.get()) == GTK_ROOT(window_);
  // Not by grabbing the focus: an entry would then select its text.
  gtk_root_set_focus(GTK_ROOT(window_), isThere ? focus.get() : nullptr);
  gtk_window_set_focus_visible(window_, hostFocusVisible_);
}

// The SDK takes the focus once, when it covers the window. A widget of the host that takes it back
// keeps it, but receives no keys.
void NativeWindow::focusChanged() {
  auto* focus = gtk_window_get_focus(window_);
  if (!isCovered() || !focus) return;
  const bool isOurs = focus == layer_->widget() || gtk_widget_is_ancestor(focus, layer_->widget());
  // A widget that the host focuses while the window is covered has the focus afterwards.
  (isOurs ? coverFocus_ : hostFocus_).set(focus);
}

void NativeWindow::focusCover() {
  auto* top = controllers_.back()->nativeView().widget();
  auto* focus = gtk_window_get_focus(window_);
  if (focus && gtk_widget_is_ancestor(focus, top)) return;
  gtk_root_set_focus(GTK_ROOT(window_), layer_->widget());
  gtk_widget_child_focus(top, GTK_DIR_TAB_FORWARD);
}

void NativeWindow::moveFocus(GtkDirectionType direction) {
  auto* top = controllers_.back()->nativeView().widget();
  if (gtk_widget_child_focus(top, direction)) return;
  gtk_root_set_focus(GTK_ROOT(window_), layer_->widget());
  gtk_widget_child_focus(top, direction);
}

bool NativeWindow::takeKey(guint key, GdkModifierType modifiers) {
  auto self = shared_from_this();
  const int held = modifiers & kModifiers;
  if (!held && (key == GDK_KEY_Escape || key == GDK_KEY_Back)) {
    cancelRequested();
  } else if (!opensPopup(key, held) && !forwardKey() &&
             (key == GDK_KEY_Tab || key == GDK_KEY_KP_Tab || key == GDK_KEY_ISO_Left_Tab)) {
    gtk_window_set_focus_visible(window_, TRUE);
    moveFocus(key == GDK_KEY_ISO_Left_Tab ? GTK_DIR_TAB_BACKWARD : GTK_DIR_TAB_FORWARD);
  }
  return GDK_EVENT_STOP;
}

bool NativeWindow::forwardKey() {
  auto focus = coverFocus_.get();
  auto* top = controllers_.back()->nativeView().widget();
  if (!focus || !gtk_widget_is_ancestor(focus.get(), top)) return false;
  if (!gtk_widget_get_mapped(focus.get())) return false;
  // From the outermost view to the focus, the order in which GTK propagates keys.
  std::vector<GtkWidget*> path;
  for (auto* widget = focus.get(); widget != top; widget = gtk_widget_get_parent(widget))
    path.push_back(widget);
  return std::ranges::any_of(path.rbegin(), path.rend(), [this](auto* widget) {
    return gtk_event_controller_key_forward(GTK_EVENT_CONTROLLER_KEY(keys_), widget);
  });
}

}  // namespace kva::gtk
