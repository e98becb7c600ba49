#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Geometry.h>

// Everything in this file lives on the main thread.
namespace kva {

class View;
class Window;

/// Where a view stands in its superview, kept up when that changes its size.
struct Layout {
  /// Standby: as edges, but unseen, and neither pressed nor focused, with all that stands in it.
  enum class Kind { frame, edges, corner, standby };
  /// Safe area: the superview's bounds less the window's safe-area insets.
  enum class Area { plain, safe };
  enum class Corner { topLeading, topTrailing, bottomLeading, bottomTrailing };

  Kind kind = Kind::frame;
  Area area = Area::plain;
  Corner corner = Corner::topLeading;
  Rect rect{};  ///< frame: as it stands; corner: its size

  static Layout frame(Rect rect) { return {.kind = Kind::frame, .rect = rect}; }
  static Layout edges(Area area) { return {.kind = Kind::edges, .area = area}; }
  static Layout standby(Area area) { return {.kind = Kind::standby, .area = area}; }
  /// In an area smaller than `size`, as far in the corner as the superview's bounds allow; in a
  /// superview smaller than `size`, as large as that.
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
  /// The view, or a view that it stands in, was put into a window or taken out of it.
  virtual void viewDidMoveToWindow() {}
  /// A pointer or a finger was pressed on the view or on anything in it, or a key activated a
  /// control in it. Before the thing that was pressed reacts. Never for mere motion.
  virtual void viewWasTouched() {}
};

/// A rectangle of the screen. A superview owns its subviews; so may others.
class View {
 public:
  virtual ~View() = default;

  virtual void setDelegate(std::weak_ptr<ViewDelegate> delegate) = 0;

  /// On top of the other subviews; out of its old superview first.
  virtual void addSubview(std::shared_ptr<View> subview, Layout layout) = 0;
  virtual void removeFromSuperview() = 0;
  virtual void sendToBack() = 0;
  virtual void bringToFront() = 0;
  /// Null when there is none.
  virtual std::shared_ptr<View> superview() const = 0;
  virtual std::shared_ptr<Window> window() const = 0;

  /// In the superview's coordinates.
  virtual Rect frame() const = 0;
  /// In the window's coordinates; nothing without a window.
  virtual std::optional<Rect> frameInWindow() const = 0;

  virtual void setHidden(bool hidden) = 0;
  virtual bool isHidden() const = 0;
  virtual void setAlpha(double alpha) = 0;
  virtual void setBackgroundColor(Color color) = 0;
  virtual void setClipsToBounds(bool clips) = 0;
};

/// An image of a resource bundle by name: "icon.close" is icon.close.png and, for twice the
/// density, icon.close@2x.png.
struct Image {
  std::filesystem::path bundle;
  std::string name;
  std::string symbol;  ///< text that is shown instead when neither file can be read
};

/// A button that shows an image. Takes part in keyboard focus; activation is a press and release
/// inside, or a key.
class Button {
 public:
  virtual ~Button() = default;
  virtual std::shared_ptr<View> view() = 0;
  /// Whether the image could be read; if not, the button shows the symbol.
  virtual bool setImage(Image image, EdgeInsets insets) = 0;
  virtual void setAccessibleName(const std::string& name) = 0;
  virtual void setAction(std::function<void()> touchedUpInside) = 0;
};

/// A window of the host.
class Window {
 public:
  virtual ~Window() = default;
  virtual Rect frame() const = 0;  ///< origin on the screen where known, else zero
  virtual EdgeInsets safeAreaInsets() const = 0;
  /// Whether the user can see it: shown and not minimised.
  virtual bool isOnScreen() const = 0;
  /// The view that everything in the window stands in.
  virtual std::shared_ptr<View> view() = 0;
};

class ViewControllerDelegate {
 public:
  virtual ~ViewControllerDelegate() = default;
  /// The user pressed Escape (or the platform's back key) while this controller is on top.
  virtual void viewControllerDidRequestCancel() {}
  /// The window that this presented controller covers came on screen, or left it.
  virtual void viewControllerDidChangeOnScreen() {}
  /// The window that this controller was presented in is gone, and its view with it. No
  /// completion of `present` or `dismiss` comes after this.
  virtual void viewControllerWasTornDown() {}
};

/// A screen of content. The host's own stands for its window; those that the SDK makes are
/// presented over it and cover it whole.
class ViewController {
 public:
  virtual ~ViewController() = default;
  virtual void setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) = 0;
  virtual std::shared_ptr<View> view() = 0;
  /// True from `present` until the dismissal has completed.
  virtual bool isPresented() const = 0;
  /// Presents `controller` over this one, full screen, with a short animation that begins when
  /// the window is on screen. `completed` is called once, never before `present` returns; not at
  /// all when the window is destroyed, or `controller` dismissed, before the animation begins.
  /// This one's view is in a window.
  virtual void present(std::shared_ptr<ViewController> controller,
                       std::move_only_function<void()> completed) = 0;
  /// Takes this controller off the one that presents it; the content below is as it was.
  virtual void dismiss(std::move_only_function<void()> completed) = 0;
};

}  // namespace kva
