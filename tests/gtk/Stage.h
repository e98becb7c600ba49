#pragma once

#include <gmock/gmock.h>

#include <platform/linux/gtk/Application.h>
#include <stage/RealInput.h>
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
  Stage() {
    g_object_add_weak_pointer(G_OBJECT(gtkWindow), reinterpret_cast<gpointer*>(&gtkWindow));
    auto* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_append(GTK_BOX(column), button);
    gtk_box_append(GTK_BOX(column), entry);
    gtk_widget_set_vexpand(button, TRUE);
    g_signal_connect_swapped(button, "clicked",
                             G_CALLBACK(+[](Stage* stage) { ++stage->hostClicks; }), this);
    gtk_window_set_child(gtkWindow, column);
    gtk_window_set_default_widget(gtkWindow, button);
    gtk_window_set_decorated(gtkWindow, FALSE);
    gtk_window_set_default_size(gtkWindow, 640, 480);
    gtk_window_present(gtkWindow);
    application_.viewController(gtkWindow);
    window_ = application_.keyWindow();
    EXPECT_TRUE(spinUntil([this] { return window_->frame().width > 0; }));
  }
  ~Stage() { destroyWindow(); }

  HostApplication& application() { return application_; }
  std::shared_ptr<kva::Window> window() { return window_; }
  std::shared_ptr<ViewController> host() { return application_.viewController(gtkWindow); }
  bool spinUntil(const std::function<bool()>& done) { return test::spinUntil(done); }
  void pass(double seconds) { kva::test::spinFor(seconds); }
  void resize(Size size) {
    gtk_window_set_default_size(gtkWindow, static_cast<int>(size.width),
                                static_cast<int>(size.height));
  }
  void tap(Point point) {
    drawFrame(gtkWindow);  // lays out what was just added
    stage::click(gtkWindow, point.x, point.y);
  }
  void type(unsigned key, unsigned held = 0) { stage::typeKey(gtkWindow, key, held); }
  void pressEscape() { type(GDK_KEY_Escape); }
  void hideWindow() { gtk_widget_set_visible(GTK_WIDGET(gtkWindow), FALSE); }
  void showWindow() { gtk_window_present(gtkWindow); }
  void destroyWindow() {
    if (gtkWindow) gtk_window_destroy(gtkWindow);
  }
  /// Presents or dismisses `controller`, waits for the completion, and draws a frame.
  void present(const std::shared_ptr<ViewController>& controller) {
    bool completed = false;
    host()->present(controller, [&] { completed = true; });
    ASSERT_TRUE(spinUntil([&] { return completed; }));
    drawFrame(gtkWindow);
  }
  void dismiss(const std::shared_ptr<ViewController>& controller) {
    bool completed = false;
    controller->dismiss([&] { completed = true; });
    ASSERT_TRUE(spinUntil([&] { return completed; }));
    drawFrame(gtkWindow);
  }
  /// The script's value as JSON, or the error's description.
  std::string evaluate(WebView& webView, const std::string& script) {
    // Shared, because a busy page may answer after this returns.
    auto answer = std::make_shared<std::optional<std::string>>();
    webView.evaluateJavaScript(script, [answer](Result<std::string> value) {
      *answer = value ? *value : value.error().localizedDescription();
    });
    return spinUntil([&] { return answer->has_value(); }) ? **answer : "no answer";
  }

  GtkWindow* gtkWindow = GTK_WINDOW(gtk_window_new());
  GtkWidget *button = gtk_button_new_with_mnemonic("_Host"), *entry = gtk_entry_new();
  int hostClicks = 0, stateChanges = 0;
  std::vector<DeviceOrientation> shapes;

 private:
  Application application_{
      {.safeAreaInsets = {.top = 20, .left = 5, .bottom = 10, .right = 15},
       .openURL = {},
       .shapeChanged = [this](DeviceOrientation shape) { shapes.push_back(shape); },
       .logError = {},
       .stateChanged = [this] { ++stateChanges; }}};
  std::shared_ptr<kva::Window> window_;
};

}  // namespace kva::gtk::test
