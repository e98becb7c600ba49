#include <platform/linux/gtk/NativeViewController.h>

#include <algorithm>

#include <Kelvara/base/Fatal.h>
#include <platform/linux/Threads.h>
#include <platform/linux/gtk/NativeWindow.h>

namespace kva::gtk {

namespace {

constexpr guint kFadeMilliseconds = 200;

bool animationsAreOn(GtkWidget* widget) {
  gboolean on = TRUE;
  g_object_get(gtk_widget_get_settings(widget), "gtk-enable-animations", &on, nullptr);
  return on;
}

struct Fade {
  NativeView* view;
  double from, to;
  gint64 start = g_get_monotonic_time();
};

// A frame is seen at the end of its refresh interval. Therefore the fade's first frame shows
// something already.
gboolean fadeFrame(GtkWidget*, GdkFrameClock* clock, gpointer data) {
  auto& fade = *static_cast<Fade*>(data);
  const gint64 now = g_get_monotonic_time();
  gint64 interval = 0;
  gdk_frame_clock_get_refresh_info(clock, now, &interval, nullptr);
  auto elapsed = static_cast<double>(now + interval - fade.start) / 1000;
  auto left = 1 - std::min(1.0, elapsed / kFadeMilliseconds);
  fade.view->setTransition(fade.to + (fade.from - fade.to) * left * left);
  return G_SOURCE_CONTINUE;
}

}  // namespace

// A modal dialog, not a region: it takes every key until the user closes it, and a screen reader
// announces a dialog when the focus moves into it.
NativeViewController::NativeViewController() : view_(std::make_shared<NativeView>(Rect{})) {
  g_object_set(view_->widget(), "accessible-role", GTK_ACCESSIBLE_ROLE_DIALOG, nullptr);
  gtk_accessible_update_property(GTK_ACCESSIBLE(view_->widget()), GTK_ACCESSIBLE_PROPERTY_MODAL,
                                 gboolean{TRUE}, -1);
}

NativeViewController::NativeViewController(const std::shared_ptr<NativeWindow>& window)
    : window_(window), view_(std::static_pointer_cast<NativeView>(window->view())) {}

std::shared_ptr<NativeViewController> NativeViewController::ofHost(
    const std::shared_ptr<NativeWindow>& window) {
  return {new NativeViewController(window), [](NativeViewController* controller) {
            if (isMainThread()) return delete controller;
            g_idle_add_once([](gpointer data) { delete static_cast<NativeViewController*>(data); },
                            controller);
          }};
}

void NativeViewController::setAccessibleName(const std::string& name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(view_->widget()), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                 name.c_str(), -1);
}

void NativeViewController::cancelRequested() {
  if (phase_ != Phase::appearing && phase_ != Phase::shown) return;
  if (auto delegate = delegate_.lock()) delegate->viewControllerDidRequestCancel();
}

void NativeViewController::present(std::shared_ptr<ViewController> controller,
                                   Completion completed) {
  auto other = std::static_pointer_cast<NativeViewController>(controller);
  if (other->isPresented()) fatal("A view controller is presented that is presented already.");
  auto window = window_.lock();
  if (!window || !window->gtkWindow())
    fatal("A view controller without a window presents another.");
  other->window_ = window;
  other->appeared_ = std::move(completed);
  other->wait();
  if (window->isOnScreen()) other->appear();
  window->cover(other);
}

void NativeViewController::dismiss(Completion completed) {
  if (phase_ == Phase::away) return callLater(std::move(completed));
  disappeared_.push_back(std::move(completed));
  if (phase_ == Phase::waiting) {
    appeared_ = nullptr;
    phase_ = Phase::shown;
  }
  if (phase_ == Phase::appearing) didAppear();
  if (phase_ == Phase::shown) disappear();
}

void NativeViewController::windowIsGone() {
  auto self = shared_from_this();
  stopFading();
  phase_ = Phase::away;
  window_.reset();
  appeared_ = nullptr;
  disappeared_.clear();
  calls_.clear();
  nextCall_.cancel();
  view_->setTransition(1);
  view_->removeFromSuperview();
  if (auto delegate = delegate_.lock()) delegate->viewControllerWasTornDown();
}

void NativeViewController::wait() {
  stopFading();
  phase_ = Phase::waiting;
  view_->setTransition(0);
}

void NativeViewController::appear() {
  phase_ = Phase::appearing;
  fade(0, 1, &NativeViewController::didAppear);
}

void NativeViewController::onScreenDidChange() {
  auto self = shared_from_this();
  const bool isOnScreen = window_.lock()->isOnScreen();
  if (phase_ == Phase::waiting && isOnScreen) return appear();
  if (phase_ == Phase::appearing && !isOnScreen) return wait();
  if (phase_ != Phase::shown) return;
  if (auto delegate = delegate_.lock()) delegate->viewControllerDidChangeOnScreen();
}

void NativeViewController::didAppear() {
  stopFading();
  view_->setTransition(1);
  phase_ = Phase::shown;
  window_.lock()->didCover();
  callLater(std::move(appeared_));
}

void NativeViewController::disappear() {
  phase_ = Phase::disappearing;
  gtk_widget_set_can_target(view_->widget(), FALSE);
  window_.lock()->willUncover(*this);
  fade(1, 0, &NativeViewController::didDisappear);
}

void NativeViewController::didDisappear() {
  auto self = shared_from_this();
  auto window = window_.lock();
  stopFading();
  phase_ = Phase::away;
  window_.reset();
  window->uncover(*this);
  view_->removeFromSuperview();
  view_->setTransition(1);
  gtk_widget_set_can_target(view_->widget(), TRUE);
  for (auto& completed : std::exchange(disappeared_, {})) callLater(std::move(completed));
}

void NativeViewController::fade(double from, double to, void (NativeViewController::*done)()) {
  guint duration = 0;
  if (animationsAreOn(view_->widget())) {
    duration = kFadeMilliseconds;
    view_->setTransition(from);
    ticks_ =
        gtk_widget_add_tick_callback(view_->widget(), fadeFrame, new Fade{view_.get(), from, to},
                                     [](gpointer data) { delete static_cast<Fade*>(data); });
  }
  // A timer ends the fade, because a minimised window has no frames.
  fadeEnd_ = PendingCall::after(duration, [this, done] { (this->*done)(); });
}

void NativeViewController::stopFading() {
  fadeEnd_.cancel();
  if (ticks_) gtk_widget_remove_tick_callback(view_->widget(), std::exchange(ticks_, 0));
}

void NativeViewController::callLater(Completion call) {
  calls_.push_back(std::move(call));
  if (calls_.size() == 1) nextCall_ = PendingCall::after(0, [this] { callNext(); });
}

void NativeViewController::callNext() {
  auto self = shared_from_this();
  auto call = std::move(calls_.front());
  calls_.erase(calls_.begin());
  if (!calls_.empty()) nextCall_ = PendingCall::after(0, [this] { callNext(); });
  if (call) call();
}

}  // namespace kva::gtk
