#pragma once

#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/LayoutWidget.h>

namespace kva::gtk {

class NativeWindow;

/// A view as a GTK widget, with an optional widget of GTK's or WebKit's own that fills it below
/// its subviews. Geometry is answered from the layouts at once, before GTK has placed anything.
/// Main thread only.
class NativeView final : public kva::View,
                         public std::enable_shared_from_this<NativeView>,
                         private LayoutClient {
 public:
  explicit NativeView(Rect frame);
  NativeView(Rect frame, GtkWidget* content);
  ~NativeView() override;

  GtkWidget* widget() const { return widget_.get(); }

  /// Makes this the root of a window, which lets presses through where no subview is unless it is
  /// covered; of none when null.
  void becomeRoot(std::weak_ptr<NativeWindow> window);
  /// Tells the root the size that it has in its window.
  void setRootSize(Size size);
  /// While a transition runs, on top of the view's own alpha.
  void setTransition(double visible);
  /// Tells the delegates from the root down to this view that something in it was touched.
  void reportTouch();

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

  std::shared_ptr<NativeWindow> nativeWindow() const;
  EdgeInsets safeAreaInsets() const;
  void leaveSuperview();
  void relayout();
  void tellOfWindow();

  std::weak_ptr<ViewDelegate> delegate_;
  std::weak_ptr<NativeView> superview_;
  std::vector<std::shared_ptr<NativeView>> subviews_;
  std::weak_ptr<NativeWindow> rootOf_;
  Rect frame_;  ///< while there is no superview
  Layout layout_;
  double alpha_ = 1, transition_ = 1;
  Color background_ = Color::clear;
  GObjectPtr<GtkWidget> widget_;
  GtkWidget* content_ = nullptr;
  Subscription presses_;
};

}  // namespace kva::gtk
