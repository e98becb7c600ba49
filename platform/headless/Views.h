#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/headless/VirtualTime.h>

// Everything in this file lives on the thread that runs virtual time.
namespace kva::headless {

class HeadlessWindow;
class HeadlessViewController;

/// A view of a real tree, with nothing painted. What is not in a window has the frame it was given,
/// or the last it had.
class HeadlessView : public View, public std::enable_shared_from_this<HeadlessView> {
 public:
  explicit HeadlessView(Rect frame) : layout_(Layout::frame(frame)) {}
  HeadlessView(const HeadlessView&) = delete;
  HeadlessView& operator=(const HeadlessView&) = delete;

  void setDelegate(std::weak_ptr<ViewDelegate> delegate) override;
  void addSubview(std::shared_ptr<View> subview, Layout layout) override;
  void removeFromSuperview() override;
  void sendToBack() override;
  void bringToFront() override;
  std::shared_ptr<View> superview() const override { return superview_.lock(); }
  std::shared_ptr<Window> window() const override;
  Rect frame() const override;
  std::optional<Rect> frameInWindow() const override;
  void setHidden(bool hidden) override { hidden_ = hidden; }
  bool isHidden() const override { return hidden_; }
  void setAlpha(double alpha) override { alpha_ = alpha; }
  void setBackgroundColor(Color) override {}
  void setClipsToBounds(bool clips) override { clipsToBounds_ = clips; }

  double alpha() const { return alpha_; }
  bool clipsToBounds() const { return clipsToBounds_; }
  /// In a window, and neither it nor a view that it stands in is hidden or clear.
  bool isShown() const;

 private:
  friend class HeadlessWindow;
  using Chain = std::vector<std::shared_ptr<HeadlessView>>;

  /// What activation does; only buttons do anything.
  virtual void activate() {}
  std::shared_ptr<HeadlessWindow> headlessWindow() const;
  /// This view and all that stands in it, superviews first.
  Chain subtree();
  /// From the window's view down to this one.
  Chain path();
  /// Appends the views under the point, from this one to the topmost leaf.
  bool hitTest(Point point, Chain& chain);
  void detach();
  static void notifyMoved(const Chain& views);
  static void touch(const Chain& chain);

  std::weak_ptr<ViewDelegate> delegate_;
  std::weak_ptr<HeadlessView> superview_;
  std::weak_ptr<HeadlessWindow> rootOf_;                 // of a window's own view
  std::vector<std::shared_ptr<HeadlessView>> subviews_;  // the lowest first
  Layout layout_;
  bool hidden_ = false;
  bool clipsToBounds_ = false;
  double alpha_ = 1;
};

/// A button is its own view.
class HeadlessButton final : public HeadlessView, public Button {
 public:
  HeadlessButton() : HeadlessView({}) {}
  std::shared_ptr<View> view() override { return shared_from_this(); }
  bool setImage(Image image, EdgeInsets insets) override;
  void setAccessibleName(const std::string& name) override { accessibleName_ = name; }
  void setAction(std::function<void()> touchedUpInside) override;

  const Image& image() const { return image_; }
  EdgeInsets insets() const { return insets_; }
  const std::string& accessibleName() const { return accessibleName_; }

 private:
  void activate() override;

  Image image_;
  EdgeInsets insets_;
  std::string accessibleName_;
  std::function<void()> action_;
};

/// A window of the host. The application owns it until it is destroyed.
class HeadlessWindow final : public Window, public std::enable_shared_from_this<HeadlessWindow> {
 public:
  static std::shared_ptr<HeadlessWindow> create(VirtualTime& time, Rect frame,
                                                EdgeInsets safeAreaInsets);

  Rect frame() const override { return frame_; }
  EdgeInsets safeAreaInsets() const override { return safeAreaInsets_; }
  bool isOnScreen() const override { return isOnScreen_; }
  std::shared_ptr<View> view() override { return root_; }

  /// The host's own controller, which fills the window.
  std::shared_ptr<HeadlessViewController> viewController() const { return host_; }
  int presentedCount() const { return static_cast<int>(presented_.size()); }

  void setFrame(Rect frame) { frame_ = frame; }
  /// The user minimises the window, or restores it.
  void setOnScreen(bool isOnScreen);
  /// As the host destroys a window: all in it leaves it, and what was presented is torn down.
  void destroy();
  bool isDestroyed() const { return destroyed_; }

  /// A press of the pointer, or a touch, and its release. False when it met no view but the
  /// window's own.
  bool tap(Point point);
  /// The same in the middle of `view`; false when something else is there, or it is not shown.
  bool tap(const std::shared_ptr<View>& view);
  /// A key activates the focused control; false when it is not shown.
  bool activate(const std::shared_ptr<Button>& button);
  void pressEscape();

 private:
  friend class HeadlessViewController;
  explicit HeadlessWindow(Rect frame, EdgeInsets safeAreaInsets);
  /// The one that was presented last, or the host's own.
  std::shared_ptr<HeadlessViewController> topController() const;

  Rect frame_;
  EdgeInsets safeAreaInsets_;
  std::shared_ptr<HeadlessView> root_;
  std::shared_ptr<HeadlessViewController> host_;
  std::vector<std::shared_ptr<HeadlessViewController>> presented_;
  bool isOnScreen_ = true;
  bool destroyed_ = false;
};

/// Presentation and dismissal take `kAnimation` seconds of virtual time.
class HeadlessViewController final : public ViewController,
                                     public std::enable_shared_from_this<HeadlessViewController> {
 public:
  static constexpr double kAnimation = 0.25;

  explicit HeadlessViewController(VirtualTime& time);

  void setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) override;
  std::shared_ptr<View> view() override { return view_; }
  bool isPresented() const override { return isPresented_; }
  void present(std::shared_ptr<ViewController> controller,
               std::move_only_function<void()> completed) override;
  void dismiss(std::move_only_function<void()> completed) override;

 private:
  friend class HeadlessWindow;
  void appear();
  void onScreenDidChange();
  void finishDismissal();
  void tearDown();

  VirtualTime& time_;
  std::shared_ptr<HeadlessView> view_;
  std::weak_ptr<ViewControllerDelegate> delegate_;
  std::weak_ptr<HeadlessWindow> presentedIn_;
  bool isPresented_ = false;
  std::move_only_function<void()> presented_;  ///< until the presentation is over
  Timer presentation_, dismissal_;
  std::vector<std::move_only_function<void()>> dismissed_;
};

}  // namespace kva::headless
