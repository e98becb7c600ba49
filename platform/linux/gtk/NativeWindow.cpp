#include <platform/linux/gtk/NativeWindow.h>

#include <algorithm>

#include <platform/linux/gtk/NativeViewController.h>

namespace kva::gtk {

namespace {

constexpr auto kModifiers = GdkModifierType(GDK_CONTROL_MASK | GDK_ALT_MASK | GDK_SHIFT_MASK |
                                            GDK_SUPER_MASK | GDK_META_MASK);

/// How far the title bar that GTK draws for want of a window manager's reaches down.
int plainTitleBarHeight(GtkWindow* window) {
  for (auto* child = gtk_widget_get_first_child(GTK_WIDGET(window)); child;
       child = gtk_widget_get_next_sibling(child)) {
    if (!gtk_widget_has_css_class(child, "default-decoration")) continue;
    if (!gtk_widget_get_visible(child) || !gtk_widget_get_child_visible(child)) continue;
    return gtk_widget_get_allocated_height(child);
  }
  return 0;
}

}  // namespace

std::shared_ptr<NativeWindow> NativeWindow::create(GtkWindow* window, EdgeInsets safeAreaInsets,
                                                   Events events) {
  std::shared_ptr<NativeWindow> made(new NativeWindow(window, safeAreaInsets, std::move(events)));
  made->attach();
  return made;
}

NativeWindow::NativeWindow(GtkWindow* window, EdgeInsets safeAreaInsets, Events events)
    : window_(window),
      safeAreaInsets_(safeAreaInsets),
      events_(std::move(events)),
      layer_(std::make_shared<NativeView>(Rect{})) {}

NativeWindow::~NativeWindow() {
  if (window_) detach();
}

void NativeWindow::attach() {
  layer_->becomeRoot(weak_from_this());
  auto* window = GTK_WIDGET(window_);
  gtk_widget_insert_before(layer_->widget(), window, nullptr);
  gtk_widget_set_layout_manager(
      window, windowLayoutNew([this](int width, int height) { placeLayer(width, height); }));
  addControllers();
  connections_.push_back(connect<void()>(window, "destroy", [this] { leave(); }));
  for (auto* property : {"notify::child", "notify::titlebar"})
    connections_.push_back(
        connect<void(GParamSpec*)>(window, property, [this](GParamSpec*) { contentChanged(); }));
  connections_.push_back(connect<void(GParamSpec*)>(window, "notify::is-active",
                                                    [this](GParamSpec*) { events_.changed(); }));
  connections_.push_back(connect<void(GParamSpec*)>(window, "notify::focus-widget",
                                                    [this](GParamSpec*) { keepFocus(); }));
  gtk_widget_queue_resize(window);
}

void NativeWindow::addControllers() {
  using Keys = gboolean(guint, guint, GdkModifierType);
  firstKeys_ = gtk_event_controller_key_new();
  gtk_event_controller_set_propagation_phase(firstKeys_, GTK_PHASE_CAPTURE);
  connections_.push_back(
      connect<Keys>(firstKeys_, "key-pressed",
                    [this](guint key, guint, GdkModifierType held) { return sawKey(key, held); }));
  gtk_widget_add_controller(GTK_WIDGET(window_), firstKeys_);

  auto* keys = gtk_event_controller_key_new();
  connections_.push_back(
      connect<Keys>(keys, "key-pressed",
                    [this](guint key, guint, GdkModifierType held) { return keepKey(key, held); }));
  gtk_widget_add_controller(layer_->widget(), keys);
}

void NativeWindow::detach() {
  connections_.clear();
  refocus_.cancel();
  gtk_widget_remove_controller(GTK_WIDGET(window_), firstKeys_);
  gtk_widget_unparent(layer_->widget());
  gtk_widget_set_layout_manager(GTK_WIDGET(window_), nullptr);
  window_ = nullptr;
}

void NativeWindow::leave() {
  if (!window_) return;
  auto self = shared_from_this();
  if (!contentShows_) showBelow(true);
  if (isCovered() && !gtk_widget_in_destruction(GTK_WIDGET(window_))) restoreFocus();
  detach();
  // Those who hear of their end below find this window gone.
  events_.destroyed(*this);
  while (!controllers_.empty()) {
    auto controller = std::move(controllers_.back());
    controllers_.pop_back();
    controller->windowIsGone();
  }
  layer_->becomeRoot({});
}

void NativeWindow::relayout() {
  if (window_) gtk_widget_queue_resize(GTK_WIDGET(window_));
}

void NativeWindow::placeLayer(int width, int height) {
  const int top = plainTitleBarHeight(window_);
  const Rect before = frame();
  height = std::max(0, height - top);
  layer_->setRootSize({static_cast<double>(width), static_cast<double>(height)});
  int minimum = 0;
  auto* layer = layer_->widget();
  gtk_widget_measure(layer, GTK_ORIENTATION_HORIZONTAL, -1, &minimum, nullptr, nullptr, nullptr);
  gtk_widget_measure(layer, GTK_ORIENTATION_VERTICAL, -1, &minimum, nullptr, nullptr, nullptr);
  const graphene_point_t origin{0, static_cast<float>(top)};
  gtk_widget_allocate(layer, width, height, -1, gsk_transform_translate(nullptr, &origin));
  if (before != frame()) events_.changed();
}

void NativeWindow::contentChanged() {
  gtk_widget_insert_before(layer_->widget(), GTK_WIDGET(window_), nullptr);
  if (!contentShows_) showBelow(false);
}

void NativeWindow::showBelow(bool visible) {
  contentShows_ = visible;
  if (auto* content = gtk_window_get_child(window_)) gtk_widget_set_child_visible(content, visible);
}

void NativeWindow::cover(std::shared_ptr<NativeViewController> controller) {
  if (!isCovered()) {
    hostFocus_.set(gtk_window_get_focus(window_));
    hostFocusVisible_ = gtk_window_get_focus_visible(window_);
  }
  layer_->addSubview(controller->view(), Layout::edges(Layout::Area::plain));
  controllers_.push_back(std::move(controller));
  focusCover();
}

void NativeWindow::didCover() { showBelow(false); }

void NativeWindow::willUncover(const NativeViewController& controller) {
  if (controllers_.size() == 1 && controllers_.back().get() == &controller) showBelow(true);
}

void NativeWindow::uncover(const NativeViewController& controller) {
  std::erase_if(controllers_, [&](auto& one) { return one.get() == &controller; });
  isCovered() ? focusCover() : restoreFocus();
}

void NativeWindow::restoreFocus() {
  refocus_.cancel();
  auto focus = hostFocus_.get();
  const bool isThere = focus && gtk_widget_get_root(focus.get()) == GTK_ROOT(window_);
  // Not by grabbing it, upon which an entry would select its text.
  gtk_root_set_focus(GTK_ROOT(window_), isThere ? focus.get() : nullptr);
  gtk_window_set_focus_visible(window_, hostFocusVisible_);
}

void NativeWindow::keepFocus() {
  if (!isCovered()) return;
  auto* focus = gtk_window_get_focus(window_);
  if (focus && gtk_widget_is_ancestor(focus, layer_->widget())) return;
  if (focus == layer_->widget()) return;
  // What the host focuses meanwhile has the focus afterwards.
  if (focus) hostFocus_.set(focus);
  // Later, for GTK is in the midst of moving it, or the window of going away.
  refocus_ = PendingCall::after(
      0, [this] { focusCover(); }, G_PRIORITY_HIGH);
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

bool NativeWindow::sawKey(guint key, GdkModifierType modifiers) {
  if (!isCovered()) return GDK_EVENT_PROPAGATE;
  if (modifiers & kModifiers) return GDK_EVENT_PROPAGATE;
  if (key != GDK_KEY_Escape && key != GDK_KEY_Back) return GDK_EVENT_PROPAGATE;
  auto self = shared_from_this();
  auto top = controllers_.back();
  top->cancelRequested();
  return GDK_EVENT_STOP;
}

bool NativeWindow::keepKey(guint key, GdkModifierType) {
  if (!isCovered()) return GDK_EVENT_PROPAGATE;
  if (key == GDK_KEY_Tab || key == GDK_KEY_KP_Tab || key == GDK_KEY_ISO_Left_Tab) {
    gtk_window_set_focus_visible(window_, TRUE);
    moveFocus(key == GDK_KEY_ISO_Left_Tab ? GTK_DIR_TAB_BACKWARD : GTK_DIR_TAB_FORWARD);
  }
  // Nothing of the host's hears of it: no mnemonic, no default button.
  return GDK_EVENT_STOP;
}

}  // namespace kva::gtk
