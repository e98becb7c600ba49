#include "gtk/Display.h"

#include <gtest/gtest.h>
#include <stage/RealInput.h>

namespace kva::gtk::test {

namespace {

class Display : public testing::Environment {
  void SetUp() override { ASSERT_TRUE(gtk_init_check()) << "these tests need a display"; }
};
[[maybe_unused]] auto* const display = testing::AddGlobalTestEnvironment(new Display);

}  // namespace

bool spinUntil(const std::function<bool()>& done) {
  bool late = false;
  auto limit = PendingCall::after(10'000, [&] { late = true; });
  const auto pulse = g_timeout_add(
      5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  while (!done() && !late) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(pulse);
  return done();
}

void waitForFrame(GtkWindow* window) {
  bool drawn = false;
  auto painted = connect<void()>(gtk_widget_get_frame_clock(GTK_WIDGET(window)), "after-paint",
                                 [&] { drawn = true; });
  gtk_widget_queue_draw(GTK_WIDGET(window));
  EXPECT_TRUE(spinUntil([&] { return drawn; }));
}

Stage::Stage()
    : gtkWindow(GTK_WINDOW(gtk_window_new())),
      button(gtk_button_new_with_mnemonic("_Host")),
      entry(gtk_entry_new()),
      application_({.safeAreaInsets = {.top = 20, .left = 5, .bottom = 10, .right = 15},
                    .openURL = [this](const std::string& url) { opened.push_back(url); },
                    .shapeChanged = [this](DeviceOrientation shape) { shapes.push_back(shape); }}) {
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

Stage::~Stage() { destroyWindow(); }

void Stage::pass(double seconds) {
  bool passed = false;
  auto timer = PendingCall::after(static_cast<guint>(seconds * 1000), [&] { passed = true; });
  EXPECT_TRUE(spinUntil([&] { return passed; }));
}

void Stage::resize(Size size) {
  gtk_window_set_default_size(gtkWindow, static_cast<int>(size.width),
                              static_cast<int>(size.height));
}

void Stage::tap(Point point) {
  waitForFrame(gtkWindow);  // what was just added stands where it belongs after that
  stage::click(gtkWindow, point.x, point.y);
}

void Stage::pressEscape() { stage::typeKey(gtkWindow, GDK_KEY_Escape); }

void Stage::destroyWindow() {
  if (gtkWindow) gtk_window_destroy(gtkWindow);
}

}  // namespace kva::gtk::test
