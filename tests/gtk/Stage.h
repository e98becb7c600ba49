#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <string>
#include <vector>

#include <platform/linux/gtk/Application.h>
#include <stage/Screenshot.h>
#include "support/MainLoop.h"
#include "support/Recorders.h"

namespace kva::gtk::test {

using kva::test::ControllerRecorder;
using kva::test::PageRecorder;
using kva::test::spinUntil;
using kva::test::ViewRecorder;
using stage::drawFrame;

/// An application with one host window on screen: a column of a button and a text entry.
class Stage {
 public:
  Stage();
  ~Stage() { destroyWindow(); }

  HostApplication& application() { return application_; }
  std::shared_ptr<kva::Window> window() { return window_; }
  std::shared_ptr<ViewController> host() { return application_.viewController(gtkWindow); }
  bool spinUntil(const std::function<bool()>& done) { return test::spinUntil(done); }
  void pass(double seconds) { kva::test::spinFor(seconds); }
  void resize(Size size);
  void tap(Point point);
  void pressEscape();
  void hideWindow() { gtk_widget_set_visible(GTK_WIDGET(gtkWindow), FALSE); }
  void showWindow() { gtk_window_present(gtkWindow); }
  void destroyWindow();
  /// Presents or dismisses `controller`, waits for the completion, and draws a frame.
  void present(const std::shared_ptr<ViewController>& controller);
  void dismiss(const std::shared_ptr<ViewController>& controller);
  /// The script's value as JSON, or the error's description.
  std::string evaluate(WebView& webView, const std::string& script);

  GtkWindow* gtkWindow = GTK_WINDOW(gtk_window_new());
  GtkWidget *button = gtk_button_new_with_mnemonic("_Host"), *entry = gtk_entry_new();
  int hostClicks = 0, stateChanges = 0;
  std::vector<DeviceOrientation> shapes;

 private:
  Application application_;
  std::shared_ptr<kva::Window> window_;
};

}  // namespace kva::gtk::test
