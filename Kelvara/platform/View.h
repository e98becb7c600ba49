#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Geometry.h>

// Main thread only.
namespace kva {

class View;
class Window;

/// The position of a view in its superview. It is updated when the superview's size changes.
struct Layout {
  /// Standby: laid out like edges, but the view and its subviews are invisible, take no input or
  /// focus and have no window. They run and draw as they will when the layout becomes edges.
  enum class Kind { frame, edges, corner, standby };
  /// Safe: the superview's bounds minus the window's safe-area insets.
  enum class Area { plain, safe };
  enum class Corner { topLeading, topTrailing, bottomLeading, bottomTrailing };

  Kind kind = Kind::frame;
  Area area = Area::plain;
  Corner corner = Corner::topLeading;
  Rect rect{};  ///< for frame: the frame; for corner: only its size is used

  static Layout frame(Rect rect) { return {.kind = Kind::frame, .rect = rect}; }
  static Layout edges(Area area) { return {.kind = Kind::edges, .area = area}; }
  static Layout standby(Area area) { return {.kind = Kind::standby, .area = area}; }
  /// A view larger than the area leaves it, but stays inside the superview's bounds. A view larger
  /// than the superview shrinks to its size.
  static Layout atCorner(Corner corner, Size size, Area area) {
    return {.kind = Kind::corner,
            .area = area,
            .corner = corner,
            .rect = {0, 0, size.width, size.height}};
  }
};

enum class Color { clear, black };

class ViewDelegate {
 public:
  virtual ~ViewDelegate() = default;
  /// The view or one of its superviews was added to a window or removed from it.
  virtual void viewDidMoveToWindow() {}
  /// The user pressed a pointer or a finger on the view or a subview, or activated a control in it
  /// with a key. Called before the pressed view reacts. Not called for motion.
  virtual void viewWasTouched() {}
};

/// A rectangle of the screen. A superview shares the ownership of its subviews.
class View {
 public:
  virtual ~View() = default;

  virtual void setDelegate(std::weak_ptr<ViewDelegate> delegate) = 0;

  /// Adds `subview` above the other subviews, after removing it from its old superview. A subview
  /// of this view is raised and gets the new layout, and a page in it continues undisturbed.
  virtual void addSubview(std::shared_ptr<View> subview, Layout layout) = 0;
  virtual void removeFromSuperview() = 0;
  virtual void sendToBack() = 0;
  virtual void bringToFront() = 0;
  /// Null if there is none.
  virtual std::shared_ptr<View> superview() const = 0;
  virtual std::shared_ptr<Window> window() const = 0;

  /// In the superview's coordinates.
  virtual Rect frame() const = 0;
  /// In the window's coordinates; absent outside a window. On standby, the place that the view
  /// would have with edges.
  virtual std::optional<Rect> frameInWindow() const = 0;

  virtual void setHidden(bool hidden) = 0;
  virtual bool isHidden() const = 0;
  virtual void setAlpha(double alpha) = 0;
  virtual void setBackgroundColor(Color color) = 0;
  virtual void setClipsToBounds(bool clips) = 0;
};

/// A named image of a resource bundle: "icon.close" is icon.close.png or, at double density,
/// icon.close@2x.png.
struct Image {
  std::filesystem::path bundle;
  std::string name;
  std::string symbol;  ///< text to show if neither file can be read
};

/// A button with an image. It can have the keyboard focus. A press and release inside it, or a key,
/// activates it.
class Button {
 public:
  virtual ~Button() = default;
  virtual std::shared_ptr<View> view() = 0;
  /// Returns whether the image could be read. If not, the button shows the symbol.
  virtual bool setImage(Image image, EdgeInsets insets) = 0;
  virtual void setAccessibleName(const std::string& name) = 0;
  virtual void setAction(std::function<void()> touchedUpInside) = 0;
};

/// A window of the host.
class Window {
 public:
  virtual ~Window() = default;
  virtual Rect frame() const = 0;  ///< the origin is on the screen if known, else zero
  virtual EdgeInsets safeAreaInsets() const = 0;
  /// True if the window is shown and not minimised.
  virtual bool isOnScreen() const = 0;
  /// The root view.
  virtual std::shared_ptr<View> view() = 0;
};

class ViewControllerDelegate {
 public:
  virtual ~ViewControllerDelegate() = default;
  /// The user pressed Escape or the platform's back key while this controller is on top.
  virtual void viewControllerDidRequestCancel() {}
  /// The window that this presented controller covers came on screen or left it.
  virtual void viewControllerDidChangeOnScreen() {}
  /// The window of this presented controller was destroyed, together with the controller's view. No
  /// completion of `present` or `dismiss` is called after this.
  virtual void viewControllerWasTornDown() {}
};

/// A screen of content. The host's controller represents its window. The SDK presents its own
/// controllers over it, and they cover it completely.
class ViewController {
 public:
  virtual ~ViewController() = default;
  virtual void setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) = 0;
  virtual std::shared_ptr<View> view() = 0;
  /// Sets the name by which assistive technology announces this controller when it is presented.
  virtual void setAccessibleName(const std::string& name) = 0;
  /// True from `present` until the dismissal has completed.
  virtual bool isPresented() const = 0;
  /// Presents `controller` full screen over this one, whose view must be in a window. A short
  /// animation begins when the window is on screen. `completed` is called once, after `present` has
  /// returned. It is not called if, before the animation begins, the window is destroyed or
  /// `controller` is dismissed.
  virtual void present(std::shared_ptr<ViewController> controller,
                       std::move_only_function<void()> completed) = 0;
  /// Removes this controller from the one that presented it. The content below is unchanged.
  virtual void dismiss(std::move_only_function<void()> completed) = 0;
};

}  // namespace kva
