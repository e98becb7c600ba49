#include "gtk/Stage.h"

#include <gtest/gtest.h>
#include <stage/RealInput.h>

namespace kva::gtk::test {

namespace {

class Display : public testing::Environment {
  void SetUp() override { ASSERT_TRUE(gtk_init_check()) << "these tests need a display"; }
};
[[maybe_unused]] auto* const display = testing::AddGlobalTestEnvironment(new Display);

}  // namespace

Stage::Stage()
    : application_({.safeAreaInsets = {.top = 20, .left = 5, .bottom = 10, .right = 15},
                    .openURL = {},
                    .shapeChanged = [this](DeviceOrientation shape) { shapes.push_back(shape); },
                    .logError = {},
                    .stateChanged = [this] { ++stateChanges; }}) {
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

void Stage::resize(Size size) {
  gtk_window_set_default_size(gtkWindow, static_cast<int>(size.width),
                              static_cast<int>(size.height));
}

void Stage::tap(Point point) {
  drawFrame(gtkWindow);  // lays out what was just added
  stage::click(gtkWindow, point.x, point.y);
}

void Stage::pressEscape() { stage::typeKey(gtkWindow, GDK_KEY_Escape); }

void Stage::destroyWindow() {
  if (gtkWindow) gtk_window_destroy(gtkWindow);
}

void Stage::present(const std::shared_ptr<ViewController>& controller) {
  bool completed = false;
  host()->present(controller, [&] { completed = true; });
  ASSERT_TRUE(spinUntil([&] { return completed; }));
  drawFrame(gtkWindow);
}

void Stage::dismiss(const std::shared_ptr<ViewController>& controller) {
  bool completed = false;
  controller->dismiss([&] { completed = true; });
  ASSERT_TRUE(spinUntil([&] { return completed; }));
  drawFrame(gtkWindow);
}

std::string Stage::evaluate(WebView& webView, const std::string& script) {
  // Shared, because a busy page may answer after this returns.
  auto answer = std::make_shared<std::optional<std::string>>();
  webView.evaluateJavaScript(script, [answer](Result<std::string> value) {
    *answer = value ? *value : value.error().localizedDescription();
  });
  return spinUntil([&] { return answer->has_value(); }) ? **answer : "no answer";
}

}  // namespace kva::gtk::test
