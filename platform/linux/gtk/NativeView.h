#pragma once

#include <memory>
#include <vector>

#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/LayoutWidget.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

class NativeWindow;

/// A view as a GTK widget. An optional content widget of GTK or WebKit fills it below its subviews.
/// Geometry is computed from the layouts, so it is right before GTK has placed any widget. Main
/// thread only.
class NativeView final : public ContentView,
                         public std::enable_shared_from_this<NativeView>,
                         private LayoutClient {
 public:
  explicit NativeView(Rect frame);
  NativeView(Rect frame, GtkWidget* content);
  ~NativeView() override;

  GtkWidget* widget() const override { return widget_.get(); }

  /// Makes this the root view of `window`; null detaches it. While the window is not covered, the
  /// root lets presses through where it has no subview.
  void becomeRoot(std::weak_ptr<NativeWindow> window);
  /// Sets the root's size in its window.
  void setRootSize(Size size);
  /// Sets the opacity of a running transition, which multiplies the alpha of the view's parts.
  void setTransition(double visible);
  void reportTouch() override;

  // kva::View
  void setDelegate(std::weak_ptr<ViewDelegate> delegate) override { delegate_ = delegate; }
  void addSubview(std::shared_ptr<View> subview, Layout layout) override;
  void removeFromSuperview() override;
  void sendToBack() override;
  void bringToFront() override;
  std::shared_ptr<View> superview() const override { return superview_.lock(); }
  std::shared_ptr<Window> window() const override;
  Rect frame() const override;
  std::optional<Rect> frameInWindow() const override;
  void setHidden(bool hidden) override;
  bool isHidden() const override;
  void setAlpha(double alpha) override;
  void setBackgroundColor(Color color) override;
  void setClipsToBounds(bool clips) override;

 private:
  void allocate(Size size) override;
  void snapshot(GtkSnapshot* snapshot) override;
  bool takesPresses() const override;
  bool keepsFocus() const override;

  /// The window whose root view contains this one, even on standby.
  std::shared_ptr<NativeWindow> nativeWindow() const;
  EdgeInsets safeAreaInsets() const;
  void draw(GtkSnapshot* snapshot);
  void drawBackground(GtkSnapshot* snapshot);
  /// The content of this view or one in it, if it has painted.
  GtkWidget* paintedContent() const;
  bool hasStandby() const;
  void leaveSuperview();
  void relayout();
  void notifyOfWindow();

  std::weak_ptr<ViewDelegate> delegate_;
  std::weak_ptr<NativeView> superview_;
  std::vector<std::shared_ptr<NativeView>> subviews_;
  std::weak_ptr<NativeWindow> rootOf_;
  Rect frame_;  ///< while there is no superview
  Layout layout_;
  double transition_ = 1;
  Color background_ = Color::clear;
  bool rehearses_ = false;  ///< at the next drawing; see `rehearseFade`
  GObjectPtr<GtkWidget> widget_;
  GtkWidget* content_ = nullptr;
  SignalConnection presses_;
};

}  // namespace kva::gtk
