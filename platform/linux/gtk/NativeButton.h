#pragma once

#include <memory>

#include <Kelvara/platform/View.h>
#include <platform/linux/gtk/GObject.h>
#include <platform/linux/gtk/NativeView.h>

namespace kva::gtk {

/// A GTK button that shows only its image: dimmed while pressed, with a ring while it has the
/// keyboard focus. Without an image it shows the symbol on a dark disc. Main thread only.
class NativeButton final : public kva::Button, public std::enable_shared_from_this<NativeButton> {
 public:
  NativeButton();

  std::shared_ptr<View> view() override { return view_; }
  bool setImage(Image image, EdgeInsets insets) override;
  void setAccessibleName(const std::string& name) override;
  void setAction(std::function<void()> touchedUpInside) override {
    action_ = std::move(touchedUpInside);
  }

 private:
  bool showImage();

  GObjectPtr<GtkWidget> picture_, symbol_;  ///< one of them is the button's child
  GtkWidget* button_;
  std::shared_ptr<NativeView> view_;
  Image image_;
  std::function<void()> action_;
  SignalConnection clicked_, activated_, scaled_;
};

}  // namespace kva::gtk
