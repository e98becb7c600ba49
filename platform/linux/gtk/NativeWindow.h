#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

class NativeViewController;

/// A window of the host. The SDK only observes it until `view` is first called; then it puts a
/// layer over the host's content. The layer is a further child of the window; the host's child is
/// not moved. While nothing is presented, the layer lets all input through. While a controller is
/// presented, the layer takes every press and the window forwards every key to it.
///
/// A presented controller covers the whole window, including a title bar of the host. The title bar
/// that GTK draws where there is no window manager stays usable. Main thread only.
class NativeWindow final : public kva::Window, public std::enable_shared_from_this<NativeWindow> {
 public:
  struct Events {
    std::function<void()> changed;               ///< its size, or whether it is active or on screen
    std::function<void(NativeWindow&)> shown;    ///< mapped
    std::function<void(NativeWindow&)> covered;  ///< `isCovered` changed
    std::function<void(NativeWindow&)> destroyed;
  };
  static std::shared_ptr<NativeWindow> create(GtkWindow* window, EdgeInsets safeAreaInsets,
                                              Events events);
  ~NativeWindow() override;

  /// Null after the window is destroyed or left.
  GtkWindow* gtkWindow() const { return window_; }
  /// Removes the SDK's layer and handlers from the window and tears down what is presented.
  void leave();

  // kva::Window
  Rect frame() const override;
  EdgeInsets safeAreaInsets() const override { return safeAreaInsets_; }
  bool isOnScreen() const override;
  std::shared_ptr<View> view() override;

  // For view controllers. The controller's view is in the layer from `cover` to `uncover`.
  void cover(std::shared_ptr<NativeViewController> controller);
  /// The topmost controller's view is opaque now: hides the host's content.
  void didCover();
  void willUncover(const NativeViewController& controller);
  void uncover(const NativeViewController& controller);

  /// Escape was pressed, or the window manager closes the SDK's own window.
  void cancelRequested();
  /// Makes GTK lay out the window again.
  void relayout();

  bool isCovered() const { return !controllers_.empty(); }
  /// Whether a controller appears or disappears.
  bool isAnimating() const;

 private:
  NativeWindow(GtkWindow* window, EdgeInsets safeAreaInsets, Events events);
  Rect frameBeforeLayout() const;
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
  /// Moves the focus within the topmost controller's view, and wraps at its ends.
  void moveFocus(GtkDirectionType direction);
  bool takeKey(guint key, GdkModifierType modifiers);
  /// Forwards the key to the widget of the cover that has, or last had, the focus. True if that
  /// widget handles it.
  bool forwardKey();

  GtkWindow* window_;
  EdgeInsets safeAreaInsets_;
  Events events_;
  std::shared_ptr<NativeView> layer_;                               ///< created by `view`
  std::vector<std::shared_ptr<NativeViewController>> controllers_;  ///< the topmost last
  Rect lastFrame_;
  bool wasOnScreen_ = false;
  bool contentShows_ = true;
  WeakRef<GtkWidget> hostFocus_, coverFocus_;
  WeakRef<GtkWidget> hiddenContent_;  ///< the host's child that is hidden from assistive technology
  bool hostFocusVisible_ = false;
  GtkEventController* keys_ = nullptr;
  std::vector<SignalConnection> connections_, surfaceConnections_;
  SignalConnection keyPressed_, keyReleased_;
};

}  // namespace kva::gtk
