#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/headless/VirtualTime.h>

// Everything in this file is used on the thread that runs virtual time.
namespace kva::headless {

class HeadlessWindow;
class HeadlessViewController;

/// A view in a real tree; nothing is painted. Outside a window, a view keeps its last frame.
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
  /// Whether it is in a window and neither it nor a superview is hidden or transparent.
  bool isShown() const;

 private:
  friend class HeadlessWindow;
  using Chain = std::vector<std::shared_ptr<HeadlessView>>;

  /// Runs the action of a button.
  virtual void activate() {}
  /// The window whose root view contains this one, even on standby.
  std::shared_ptr<HeadlessWindow> headlessWindow() const;
  /// This view and its descendants, superviews first.
  Chain subtree();
  /// The views from the window's root view to this one.
  Chain path();
  /// Appends the views under the point, from this one to the topmost leaf.
  bool hitTest(Point point, Chain& chain);
  void detach();
  static void notifyMoved(const Chain& views);
  static void touch(const Chain& chain);

  std::weak_ptr<ViewDelegate> delegate_;
  std::weak_ptr<HeadlessView> superview_;
  std::weak_ptr<HeadlessWindow> rootOf_;                 // set in a window's root view only
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

  /// The host's controller, which fills the window.
  std::shared_ptr<HeadlessViewController> viewController() const { return host_; }
  int presentedCount() const { return static_cast<int>(presented_.size()); }

  void setFrame(Rect frame) { frame_ = frame; }
  /// Minimises or restores the window, like the user.
  void setOnScreen(bool isOnScreen);
  /// Destroys the window, like the host: its views leave it, and presented controllers are torn
  /// down.
  void destroy();
  bool isDestroyed() const { return destroyed_; }

  /// Presses and releases at a point. False if only the window's root view is there.
  bool tap(Point point);
  /// Taps the middle of `view`. False if the view is not shown or another view covers it.
  bool tap(const std::shared_ptr<View>& view);
  /// Activates the button with a key. False if it is not shown.
  bool activate(const std::shared_ptr<Button>& button);
  void pressEscape();

 private:
  friend class HeadlessViewController;
  explicit HeadlessWindow(Rect frame, EdgeInsets safeAreaInsets);
  /// The controller that was presented last, or the host's.
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
  void setAccessibleName(const std::string&) override {}
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
  std::move_only_function<void()> presented_;  ///< null after the presentation
  Timer presentation_, dismissal_;
  std::vector<std::move_only_function<void()>> dismissed_;
};

}  // namespace kva::headless
