#pragma once

#include <memory>
#include <vector>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

class NativeWindow;

/// The host's own controller of a window, or one that is presented over it with a fade of 0.2 s
/// (none where GTK's animations are switched off). Main thread only, but for the release of the
/// host's own.
class NativeViewController final : public kva::ViewController,
                                   public std::enable_shared_from_this<NativeViewController> {
 public:
  /// One to be presented.
  NativeViewController();
  /// The host's own, which a host may release on any thread: its widgets go on the main one.
  static std::shared_ptr<NativeViewController> ofHost(const std::shared_ptr<NativeWindow>& window);
  ~NativeViewController() override { stopFading(); }

  NativeView& nativeView() { return *view_; }
  void cancelRequested();
  void onScreenDidChange();
  void windowIsGone();

  // kva::ViewController
  void setDelegate(std::weak_ptr<ViewControllerDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  std::shared_ptr<View> view() override { return view_; }
  bool isPresented() const override { return phase_ != Phase::away; }
  void present(std::shared_ptr<ViewController> controller,
               std::move_only_function<void()> completed) override;
  void dismiss(std::move_only_function<void()> completed) override;

 private:
  /// Waiting: for its window to come on screen.
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
  /// Calls from the main loop, in order, after those before.
  void callLater(Completion call);
  void callNext();

  std::weak_ptr<ViewControllerDelegate> delegate_;
  std::weak_ptr<NativeWindow> window_;  ///< a presented one's while it is presented
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
