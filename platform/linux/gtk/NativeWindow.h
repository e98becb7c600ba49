#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

class NativeViewController;

/// A window of the host. The SDK only observes it until something asks for its view; then it has a
/// layer of the SDK over the host's content. The layer is a child of the window beside the host's
/// own, which is left as it is: while nothing is presented the layer lets everything through, and
/// while something is, it takes every press and the window takes every key for it.
///
/// What is presented covers the window whole, a title bar of the host included; the plain one that
/// GTK draws where a window manager would stays in reach. Main thread only.
class NativeWindow final : public kva::Window, public std::enable_shared_from_this<NativeWindow> {
 public:
  struct Events {
    /// Its size, whether it is the active one, or whether it is on screen.
    std::function<void()> changed;
    std::function<void(NativeWindow&)> shown;  ///< mapped
    std::function<void(NativeWindow&)> destroyed;
  };
  static std::shared_ptr<NativeWindow> create(GtkWindow* window, EdgeInsets safeAreaInsets,
                                              Events events);
  ~NativeWindow() override;

  /// Null once the window is destroyed or left.
  GtkWindow* gtkWindow() const { return window_; }
  /// Removes everything of the SDK from the window; what is presented is torn down.
  void leave();

  // kva::Window
  Rect frame() const override;
  EdgeInsets safeAreaInsets() const override { return safeAreaInsets_; }
  bool isOnScreen() const override;
  std::shared_ptr<View> view() override;

  // For view controllers: from `cover` to `uncover` the controller's view is in the layer.
  void cover(std::shared_ptr<NativeViewController> controller);
  /// Nothing below the topmost controller's view shows any more.
  void didCover();
  void willUncover(const NativeViewController& controller);
  void uncover(const NativeViewController& controller);

  /// Makes GTK lay the window out again.
  void relayout();

  bool isCovered() const { return !controllers_.empty(); }

 private:
  NativeWindow(GtkWindow* window, EdgeInsets safeAreaInsets, Events events);
  void observe();
  void observeSurface();
  void attach();
  void detach();
  void didChange();
  void restoreFocus();
  void addKeys();
  void removeKeys();
  void placeLayer(int width, int height);
  void showBelow(bool visible);
  void setContentVisible(bool visible);
  void contentChanged();
  void focusChanged();
  void focusCover();
  /// Within the topmost controller's view, round and round.
  void moveFocus(GtkDirectionType direction);
  bool takeKey(guint key, GdkModifierType modifiers);
  /// To the widget of the cover that has, or had, the focus; whether that took it.
  bool forwardKey();

  GtkWindow* window_;
  EdgeInsets safeAreaInsets_;
  Events events_;
  std::shared_ptr<NativeView> layer_;                               ///< null until it is asked for
  std::vector<std::shared_ptr<NativeViewController>> controllers_;  ///< the topmost last
  Rect lastFrame_;
  bool wasOnScreen_ = false;
  bool contentShows_ = true;
  WeakRef<GtkWidget> hostFocus_, coverFocus_;
  bool hostFocusVisible_ = false;
  GtkEventController* keys_ = nullptr;
  std::vector<Subscription> connections_, surfaceConnections_;
  Subscription keyPressed_, keyReleased_;
};

}  // namespace kva::gtk
