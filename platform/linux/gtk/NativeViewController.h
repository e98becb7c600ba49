#pragma once

#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

class NativeWindow;

/// The host's controller of a window, or a controller that is presented over it. Presentation and
/// dismissal fade for 0.2 s, unless GTK's animations are off. Main thread only; the host's
/// controller may be released on any thread.
class NativeViewController final : public kva::ViewController,
                                   public std::enable_shared_from_this<NativeViewController> {
 public:
  /// Creates a controller to present.
  NativeViewController();
  /// The host's controller of `window`. The host may release it on any thread; it is destroyed on
  /// the main thread.
  static std::shared_ptr<NativeViewController> ofHost(const std::shared_ptr<NativeWindow>& window);
  ~NativeViewController() override { stopFading(); }

  NativeView& nativeView() { return *view_; }
  bool isAnimating() const { return phase_ == Phase::appearing || phase_ == Phase::disappearing; }
  void cancelRequested();
  void onScreenDidChange();
  void windowIsGone();

  // kva::ViewController
  void setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  std::shared_ptr<View> view() override { return view_; }
  void setAccessibleName(const std::string& name) override;
  bool isPresented() const override { return phase_ != Phase::away; }
  void present(std::shared_ptr<ViewController> controller,
               std::move_only_function<void()> completed) override;
  void dismiss(std::move_only_function<void()> completed) override;

 private:
  /// `waiting` lasts until the window is on screen.
  enum class Phase { away, waiting, appearing, shown, disappearing };
  using Completion = std::move_only_function<void()>;

  explicit NativeViewController(const std::shared_ptr<NativeWindow>& window);
  void wait();
  void appear();
  void didAppear();
  void disappear();
  void didDisappear();
  void fade(double from, double to, void (NativeViewController::*done)());
  void stopFading();
  /// Calls `call` from the main loop, after all earlier calls.
  void callLater(Completion call);
  void callNext();

  std::weak_ptr<ViewControllerDelegate> delegate_;
  std::weak_ptr<NativeWindow> window_;  ///< null unless presented or the host's
  std::shared_ptr<NativeView> view_;
  Phase phase_ = Phase::away;
  Completion appeared_;
  std::vector<Completion> disappeared_;
  guint ticks_ = 0;
  PendingCall fadeEnd_;
  std::vector<Completion> calls_;
  PendingCall nextCall_;
};

}  // namespace kva::gtk
