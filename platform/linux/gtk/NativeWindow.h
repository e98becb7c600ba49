#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

class NativeViewController;

/// A window of the host, with a layer of the SDK's over the host's content. The layer is a child
/// of the window beside the host's own, which is left as it is: while nothing is presented the
/// layer lets everything through, and while something is, it takes every press and key.
///
/// What is presented covers the window whole, a title bar of the host's making included; the
/// plain one that GTK draws where a window manager would stays in reach. Main thread only.
class NativeWindow final : public kva::Window, public std::enable_shared_from_this<NativeWindow> {
 public:
  struct Events {
    std::function<void()> changed;  ///< its size, or whether it is the active one
    std::function<void(NativeWindow&)> destroyed;
  };
  static std::shared_ptr<NativeWindow> create(GtkWindow* window, EdgeInsets safeAreaInsets,
                                              Events events);
  ~NativeWindow() override;

  /// Null once the window is destroyed or left.
  GtkWindow* gtkWindow() const { return window_; }
  /// Takes everything of the SDK's out of the window; what is presented is torn down.
  void leave();

  // kva::Window
  Rect frame() const override { return layer_->frame(); }
  EdgeInsets safeAreaInsets() const override { return safeAreaInsets_; }
  std::shared_ptr<View> view() override { return layer_; }

  // For view controllers: from `cover` to `uncover` the controller's view stands in the layer.
  void cover(std::shared_ptr<NativeViewController> controller);
  /// Nothing below the topmost controller's view shows any more.
  void didCover();
  void willUncover(const NativeViewController& controller);
  void uncover(const NativeViewController& controller);

  /// Has GTK lay the window out again.
  void relayout();

  bool isCovered() const { return !controllers_.empty(); }

 private:
  NativeWindow(GtkWindow* window, EdgeInsets safeAreaInsets, Events events);
  void attach();
  void detach();
  void restoreFocus();
  void addControllers();
  void placeLayer(int width, int height);
  void showBelow(bool visible);
  void contentChanged();
  void keepFocus();
  void focusCover();
  /// Within the topmost controller's view, round and round.
  void moveFocus(GtkDirectionType direction);
  bool sawKey(guint key, GdkModifierType modifiers);
  bool keepKey(guint key, GdkModifierType modifiers);

  GtkWindow* window_;
  EdgeInsets safeAreaInsets_;
  Events events_;
  std::shared_ptr<NativeView> layer_;
  std::vector<std::shared_ptr<NativeViewController>> controllers_;  ///< the topmost last
  bool contentShows_ = true;
  PendingCall refocus_;
  WeakRef<GtkWidget> hostFocus_;
  bool hostFocusVisible_ = false;
  GtkEventController* firstKeys_ = nullptr;
  std::vector<Subscription> connections_;
};

}  // namespace kva::gtk
