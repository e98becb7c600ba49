#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <platform/linux/gtk/Application.h>

namespace kva::gtk::test {

/// Turns the main loop until `done`; false after ten seconds.
bool spinUntil(const std::function<bool()>& done);

/// Until the window has drawn itself once more.
void waitForFrame(GtkWindow* window);

/// An application over one host window on show: a column of a button and a text entry.
class Stage {
 public:
  Stage();
  ~Stage();

  HostApplication& application() { return application_; }
  std::shared_ptr<kva::Window> window() { return window_; }
  std::shared_ptr<ViewController> host() { return application_.viewController(gtkWindow); }
  bool spinUntil(const std::function<bool()>& done) { return test::spinUntil(done); }
  void pass(double seconds);
  void resize(Size size);
  void tap(Point point);
  void pressEscape();
  void destroyWindow();

  GtkWindow* gtkWindow;
  GtkWidget *button, *entry;
  int hostClicks = 0;
  std::vector<std::string> opened;
  std::vector<DeviceOrientation> shapes;

 private:
  Application application_;
  std::shared_ptr<kva::Window> window_;
};

}  // namespace kva::gtk::test
