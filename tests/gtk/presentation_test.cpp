// What is presented covers the host's window, and leaves it as it was.
#include <gtest/gtest.h>
#include <platform/linux/gtk/NativeViewController.h>
#include <stage/RealInput.h>
#include "gtk/Stage.h"

namespace kva::gtk::test {
namespace {

using stage::click;
using stage::movePointer;
using stage::pressButton;
using stage::releaseButton;
using stage::typeKey;

struct Touches : ViewDelegate {
  int count = 0;
  void viewWasTouched() override { ++count; }
};

class Presentation : public testing::Test {
 protected:
  Presentation() {
    controller->view()->setBackgroundColor(Color::black);
    controller->view()->setDelegate(touches);
  }

  std::shared_ptr<Button> addButton(Rect frame, int& actions) {
    auto button = app.makeButton();
    button->setImage({KELVARA_RESOURCES, "icon.close"}, {10, 10, 10, 10});
    button->setAccessibleName("Close");
    button->setAction([&actions] { ++actions; });
    controller->view()->addSubview(button->view(), Layout::frame(frame));
    return button;
  }
  void present() {
    bool completed = false;
    stage.host()->present(controller, [&] { completed = true; });
    ASSERT_TRUE(spinUntil([&] { return completed; }));
    drawFrame(stage.gtkWindow);
  }
  void dismiss() {
    bool completed = false;
    controller->dismiss([&] { completed = true; });
    ASSERT_TRUE(spinUntil([&] { return completed; }));
    drawFrame(stage.gtkWindow);
  }
  void type(unsigned key) { typeKey(stage.gtkWindow, key); }
  std::string entryText() { return gtk_editable_get_text(GTK_EDITABLE(stage.entry)); }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<ViewController> controller = app.makeViewController();
  std::shared_ptr<Touches> touches = std::make_shared<Touches>();
};

TEST_F(Presentation, KeepsPointerAndKeyboardFromTheHostAndRestoresIt) {
  stage.tap({320, 200});
  ASSERT_TRUE(spinUntil([&] { return stage.hostClicks == 1; }));
  gtk_widget_grab_focus(stage.entry);
  gtk_editable_set_text(GTK_EDITABLE(stage.entry), "abcdef");
  gtk_editable_select_region(GTK_EDITABLE(stage.entry), 1, 3);
  auto* focus = gtk_window_get_focus(stage.gtkWindow);
  auto* child = gtk_window_get_child(stage.gtkWindow);
  gtk_window_set_title(stage.gtkWindow, "Host");

  int actions = 0;
  auto control = addButton({500, 400, 60, 60}, actions);
  present();
  stage.tap({320, 200});
  ASSERT_TRUE(spinUntil([&] { return touches->count == 1; }));
  gtk_root_set_focus(GTK_ROOT(stage.gtkWindow),
                     focus);  // a host that does not know that it is covered
  for (auto key :
       std::initializer_list<guint>{GDK_KEY_x, GDK_KEY_Tab, GDK_KEY_Tab, GDK_KEY_Tab, GDK_KEY_Left})
    type(key);
  typeKey(stage.gtkWindow, GDK_KEY_h, GDK_KEY_Alt_L);
  type(GDK_KEY_Return);
  ASSERT_TRUE(spinUntil([&] { return actions == 1; })) << "the one control in reach";
  EXPECT_EQ(entryText(), "abcdef");
  EXPECT_EQ(stage.hostClicks, 1);

  dismiss();
  int from = 0, to = 0;
  gtk_editable_get_selection_bounds(GTK_EDITABLE(stage.entry), &from, &to);
  EXPECT_EQ(from, 1);
  EXPECT_EQ(to, 3);
  EXPECT_EQ(gtk_window_get_focus(stage.gtkWindow), focus);
  EXPECT_EQ(gtk_window_get_child(stage.gtkWindow), child);
  EXPECT_STREQ(gtk_window_get_title(stage.gtkWindow), "Host");
  EXPECT_TRUE(gtk_widget_get_mapped(stage.entry));
  type(GDK_KEY_x);
  EXPECT_TRUE(spinUntil([&] { return entryText() == "axdef"; })) << entryText();
  stage.tap({320, 200});
  EXPECT_TRUE(spinUntil([&] { return stage.hostClicks == 2; }));
}

TEST_F(Presentation, AButtonActsOnAReleaseInsideAndOnKeysButNeverOnMotion) {
  int actions = 0;
  auto button = addButton({100, 100, 60, 60}, actions);
  present();
  auto* window = stage.gtkWindow;
  for (double x = 90; x < 170; x += 5) movePointer(window, x, 130);
  movePointer(window, 130, 130);
  auto* widget =
      gtk_widget_get_first_child(std::static_pointer_cast<NativeView>(button->view())->widget());
  auto is = [&](GtkStateFlags flag) { return (gtk_widget_get_state_flags(widget) & flag) != 0; };
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_PRELIGHT); }));
  EXPECT_EQ(touches->count, 0);
  EXPECT_EQ(gtk_test_accessible_check_property(GTK_ACCESSIBLE(widget),
                                               GTK_ACCESSIBLE_PROPERTY_LABEL, "Close"),
            nullptr);
  auto* picture = gtk_picture_get_paintable(GTK_PICTURE(gtk_button_get_child(GTK_BUTTON(widget))));
  EXPECT_GE(gdk_paintable_get_intrinsic_width(picture), 40 * gtk_widget_get_scale_factor(widget));

  pressButton();
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_ACTIVE); }));
  EXPECT_EQ(touches->count, 1);
  movePointer(window, 300, 300);
  releaseButton();
  ASSERT_TRUE(spinUntil([&] { return !is(GTK_STATE_FLAG_ACTIVE); }));
  EXPECT_EQ(actions, 0);

  click(window, 130, 130);
  ASSERT_TRUE(spinUntil([&] { return actions == 1; }));
  EXPECT_EQ(touches->count, 2);
  type(GDK_KEY_Tab);
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_FOCUS_VISIBLE); }));
  EXPECT_EQ(touches->count, 2) << "moving the focus is no touch";
  for (auto key : std::initializer_list<guint>{GDK_KEY_Return, GDK_KEY_space}) {
    const int before = actions;
    type(key);
    ASSERT_TRUE(spinUntil([&] { return actions == before + 1; }));
  }
  EXPECT_EQ(touches->count, 4);
}

TEST_F(Presentation, FollowsTheWindowWhileTheApplicationTellsTheKeyWindowsShape) {
  using enum DeviceOrientation;
  present();
  EXPECT_EQ(stage.shapes.back(), landscapeLeft);
  stage.resize({300, 450});
  ASSERT_TRUE(spinUntil([&] { return controller->view()->frame() == Rect{0, 0, 300, 450}; }));
  EXPECT_EQ(stage.shapes.back(), portrait);

  auto* other = GTK_WINDOW(gtk_window_new());
  gtk_window_set_default_size(other, 500, 200);
  auto others = static_cast<Application&>(app).viewController(other);
  gtk_window_present(other);
  ASSERT_TRUE(spinUntil([&] { return stage.shapes.back() == landscapeLeft; }));
  type(GDK_KEY_x);  // with which the first window becomes the active one
  EXPECT_TRUE(spinUntil([&] { return stage.shapes.back() == portrait; }));
  typeKey(other, GDK_KEY_x);
  EXPECT_TRUE(spinUntil([&] { return stage.shapes.back() == landscapeLeft; }));
  EXPECT_EQ(app.keyWindow()->view(), others->view());
  EXPECT_GT(app.screenSize().width, 0);
  gtk_window_destroy(other);
  EXPECT_EQ(app.keyWindow(), stage.window());
  EXPECT_EQ(stage.shapes.back(), portrait);
}

TEST_F(Presentation, OfAWindowThatGoesEndsWhenThatIsNoKeyWindowAnyMore) {
  struct Asks : ViewControllerDelegate {
    std::function<void()> tornDown;
    void viewControllerWasTornDown() override { tornDown(); }
  };
  auto asks = std::make_shared<Asks>();
  bool hadKeyWindow = true;
  asks->tornDown = [&] { hadKeyWindow = app.keyWindow() != nullptr; };
  controller->setDelegate(asks);
  present();
  stage.destroyWindow();
  EXPECT_FALSE(hadKeyWindow);
}

TEST_F(Presentation, CoversWhatTheHostPutsInMeanwhileAndShowsItAfterwards) {
  present();
  auto* later = gtk_button_new_with_label("Later");
  gtk_window_set_child(stage.gtkWindow, later);
  stage.tap({320, 200});
  ASSERT_TRUE(spinUntil([&] { return touches->count == 1; }));
  EXPECT_FALSE(gtk_widget_get_mapped(later));
  dismiss();
  EXPECT_TRUE(gtk_widget_get_mapped(later));
  EXPECT_EQ(gtk_window_get_child(stage.gtkWindow), later);
}

TEST_F(Presentation, CompletesOnceWhereNothingIsDrawnOrAnimated) {
  auto presentAndDismiss = [&] {
    int presented = 0, dismissed = 0;
    stage.host()->present(controller, [&] { ++presented; });
    controller->dismiss([&] { ++dismissed; });
    controller->dismiss([&] { ++dismissed; });
    EXPECT_EQ(presented + dismissed, 0);
    EXPECT_TRUE(spinUntil([&] { return dismissed == 2; }));
    EXPECT_EQ(presented, 1);
    EXPECT_FALSE(controller->isPresented());
  };
  gtk_widget_set_visible(GTK_WIDGET(stage.gtkWindow), FALSE);
  EXPECT_EQ(app.state(), HostApplication::State::background);
  presentAndDismiss();
  gtk_window_present(stage.gtkWindow);
  ASSERT_TRUE(spinUntil([&] { return app.state() == HostApplication::State::active; }));
  auto* settings = gtk_widget_get_settings(stage.button);
  g_object_set(settings, "gtk-enable-animations", FALSE, nullptr);
  presentAndDismiss();
  g_object_set(settings, "gtk-enable-animations", TRUE, nullptr);
}

TEST_F(Presentation, LeavesAPlainTitleBarInReachAndCoversTheHostsOwn) {
  for (const bool isHosts : {false, true}) {
    auto* window = GTK_WINDOW(gtk_window_new());
    auto* bar = gtk_header_bar_new();
    // What marks GTK's own, which it makes only where neither a window manager nor this display's
    // want of a compositor keeps it from that.
    if (!isHosts) gtk_widget_add_css_class(bar, "default-decoration");
    gtk_window_set_titlebar(window, bar);
    gtk_window_set_default_size(window, 400, 300);
    auto host = static_cast<Application&>(app).viewController(window);
    gtk_window_present(window);
    auto covering = app.makeViewController();
    bool completed = false;
    host->present(covering, [&] { completed = true; });
    ASSERT_TRUE(spinUntil([&] { return completed; }));
    drawFrame(window);
    const double whole = gtk_widget_get_height(GTK_WIDGET(window));
    const double covered = covering->view()->frame().height;
    EXPECT_GT(covered, 0);
    EXPECT_EQ(covered == whole, isHosts) << covered << " of " << whole;
    gtk_window_destroy(window);
  }
}

}  // namespace
}  // namespace kva::gtk::test
