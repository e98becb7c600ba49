#include <platform/linux/gtk/NativeViewController.h>
#include "gtk/Stage.h"

// Last, because of its macros.
#include <gdk/x11/gdkx.h>

namespace kva::gtk::test {
namespace {

using stage::click;
using stage::movePointer;
using stage::pressButton;
using stage::releaseButton;

/// A host that returns the focus to its widget whenever another widget gets it, and sees every key
/// before its widgets and its accelerators do.
class DemandingHost {
 public:
  DemandingHost(GtkWindow* window, GtkWidget* widget) {
    auto takeBack = [=](GParamSpec*) {
      if (gtk_window_get_focus(window) != widget) gtk_root_set_focus(GTK_ROOT(window), widget);
    };
    connections_.push_back(connect<void(GParamSpec*)>(window, "notify::focus-widget", takeBack));
    auto* first = gtk_event_controller_legacy_new();
    gtk_event_controller_set_propagation_phase(first, GTK_PHASE_CAPTURE);
    connections_.push_back(connect<gboolean(GdkEvent*)>(first, "event", [this](GdkEvent* event) {
      keys += gdk_event_get_event_type(event) == GDK_KEY_PRESS ||
              gdk_event_get_event_type(event) == GDK_KEY_RELEASE;
      return FALSE;
    }));
    gtk_widget_add_controller(GTK_WIDGET(window), first);
  }

  int keys = 0;

 private:
  std::vector<SignalConnection> connections_;
};

class Presentation : public testing::Test {
 protected:
  Presentation() {
    controller->view()->setBackgroundColor(Color::black);
    controller->view()->setDelegate(touches);
  }

  std::shared_ptr<Button> addButton(Rect frame, int& actions) {
    auto button = app.makeButton();
    EXPECT_TRUE(button->setImage({KELVARA_RESOURCES, "icon.close", "x"}, {10, 10, 10, 10}));
    button->setAccessibleName("Close");
    button->setAction([&actions] { ++actions; });
    controller->view()->addSubview(button->view(), Layout::frame(frame));
    return button;
  }
  std::string entryText() { return gtk_editable_get_text(GTK_EDITABLE(stage.entry)); }

  Stage stage;
  HostApplication& app = stage.application();
  std::shared_ptr<ViewController> controller = app.makeViewController();
  std::shared_ptr<ViewRecorder> touches = std::make_shared<ViewRecorder>();
};

TEST_F(Presentation, KeepsPointerAndKeyboardFromTheHostAndRestoresThem) {
  stage.tap({320, 200});
  ASSERT_TRUE(spinUntil([&] { return stage.hostClicks == 1; }));
  gtk_widget_grab_focus(stage.entry);
  gtk_editable_set_text(GTK_EDITABLE(stage.entry), "abcdef");
  gtk_editable_select_region(GTK_EDITABLE(stage.entry), 1, 3);
  auto* focus = gtk_window_get_focus(stage.gtkWindow);
  const DemandingHost demanding(stage.gtkWindow, focus);
  auto* child = gtk_window_get_child(stage.gtkWindow);

  int actions = 0;
  auto control = addButton({500, 400, 60, 60}, actions);
  stage.present(controller);
  stage.tap({320, 200});
  ASSERT_TRUE(spinUntil([&] { return touches->touches == 1; }));
  EXPECT_EQ(gtk_window_get_focus(stage.gtkWindow), focus);
  stage.type(GDK_KEY_k, GDK_KEY_Control_L);
  for (unsigned key : std::initializer_list<unsigned>{GDK_KEY_x, GDK_KEY_Tab, GDK_KEY_Tab,
                                                      GDK_KEY_Tab, GDK_KEY_Left})
    stage.type(key);
  stage.type(GDK_KEY_h, GDK_KEY_Alt_L);
  stage.type(GDK_KEY_Return);
  ASSERT_TRUE(spinUntil([&] { return actions == 1; })) << "the only control with the focus";
  EXPECT_EQ(entryText(), "abcdef");
  EXPECT_EQ(stage.hostClicks, 1);
  EXPECT_EQ(demanding.keys, 0);

  stage.dismiss(controller);
  int from = 0, to = 0;
  gtk_editable_get_selection_bounds(GTK_EDITABLE(stage.entry), &from, &to);
  EXPECT_EQ(from, 1);
  EXPECT_EQ(to, 3);
  EXPECT_EQ(gtk_window_get_focus(stage.gtkWindow), focus);
  EXPECT_EQ(gtk_window_get_child(stage.gtkWindow), child);
  EXPECT_TRUE(gtk_widget_get_mapped(stage.entry));
  stage.type(GDK_KEY_x);
  EXPECT_TRUE(spinUntil([&] { return entryText() == "axdef"; })) << entryText();
  EXPECT_GT(demanding.keys, 0);
  stage.tap({320, 200});
  EXPECT_TRUE(spinUntil([&] { return stage.hostClicks == 2; }));
}

TEST_F(Presentation, AButtonActsOnAReleaseInsideAndOnKeysButNotOnMotion) {
  int actions = 0;
  auto button = addButton({100, 100, 60, 60}, actions);
  stage.present(controller);
  auto* window = stage.gtkWindow;
  for (double x = 90; x < 170; x += 5) movePointer(window, x, 130);
  movePointer(window, 130, 130);
  auto* widget =
      gtk_widget_get_first_child(std::static_pointer_cast<NativeView>(button->view())->widget());
  auto is = [&](GtkStateFlags flag) { return (gtk_widget_get_state_flags(widget) & flag) != 0; };
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_PRELIGHT); }));
  EXPECT_EQ(touches->touches, 0);
  const auto face = [&] { return gtk_button_get_child(GTK_BUTTON(widget)); };
  auto* picture = gtk_picture_get_paintable(GTK_PICTURE(face()));
  EXPECT_GE(gdk_paintable_get_intrinsic_width(picture), 40 * gtk_widget_get_scale_factor(widget));
  EXPECT_FALSE(button->setImage({"/nonexistent", "icon.close", "x"}, {10, 10, 10, 10}));
  EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(face())), "x");

  pressButton();
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_ACTIVE); }));
  EXPECT_EQ(touches->touches, 1);
  movePointer(window, 300, 300);
  releaseButton();
  ASSERT_TRUE(spinUntil([&] { return !is(GTK_STATE_FLAG_ACTIVE); }));
  EXPECT_EQ(actions, 0);

  click(window, 130, 130);
  ASSERT_TRUE(spinUntil([&] { return actions == 1; }));
  EXPECT_EQ(touches->touches, 2);
  stage.type(GDK_KEY_Tab);
  ASSERT_TRUE(spinUntil([&] { return is(GTK_STATE_FLAG_FOCUS_VISIBLE); }));
  EXPECT_EQ(touches->touches, 2) << "moving the focus is no touch";
  for (unsigned key : std::initializer_list<unsigned>{GDK_KEY_Return, GDK_KEY_space}) {
    const int before = actions;
    stage.type(key);
    ASSERT_TRUE(spinUntil([&] { return actions == before + 1; }));
  }
  EXPECT_EQ(touches->touches, 4);
}

TEST_F(Presentation, FollowsItsWindowAndTheApplicationReportsTheKeyWindow) {
  using enum DeviceOrientation;
  stage.present(controller);
  EXPECT_EQ(stage.shapes.back(), landscapeLeft);
  stage.resize({300, 450});
  ASSERT_TRUE(spinUntil([&] { return controller->view()->frame() == Rect{0, 0, 300, 450}; }));
  EXPECT_EQ(stage.shapes.back(), portrait);

  // The SDK leaves a window as it is until something asks for its view.
  auto* other = GTK_WINDOW(gtk_window_new());
  gtk_window_set_decorated(other, FALSE);
  gtk_window_set_default_size(other, 500, 200);
  EXPECT_EQ(app.keyWindow(), stage.window()) << "the other window was never shown";
  gtk_window_present(other);
  ASSERT_TRUE(spinUntil([&] { return stage.shapes.back() == landscapeLeft; }));
  stage.type(GDK_KEY_x);  // makes the first window active
  EXPECT_TRUE(spinUntil([&] { return stage.shapes.back() == portrait; }));
  stage::typeKey(other, GDK_KEY_x);
  EXPECT_TRUE(spinUntil([&] { return stage.shapes.back() == landscapeLeft; }));
  EXPECT_EQ(app.keyWindow()->frame(), (Rect{0, 0, 500, 200}));
  EXPECT_FALSE(gtk_widget_get_first_child(GTK_WIDGET(other)));
  gtk_window_set_default_size(other, 200, 500);
  EXPECT_TRUE(spinUntil([&] { return stage.shapes.back() == portrait; }));
  EXPECT_GT(app.screenSize().width, 0);
  const int before = stage.stateChanges;
  gtk_window_destroy(other);
  EXPECT_GT(stage.stateChanges, before);
  EXPECT_EQ(app.keyWindow(), stage.window());
  EXPECT_EQ(stage.shapes.back(), portrait);

  auto listener = std::make_shared<ControllerRecorder>();
  bool hadKeyWindow = true;
  listener->onTornDown = [&] { hadKeyWindow = app.keyWindow() != nullptr; };
  controller->setDelegate(listener);
  stage.destroyWindow();
  EXPECT_FALSE(hadKeyWindow);
}

TEST_F(Presentation, TheApplicationAsksForTheScreenOnlyAfterItMayHaveChanged) {
  auto* display = gdk_x11_display_get_xdisplay(gdk_display_get_default());
  const auto asks = [&] {
    const auto before = NextRequest(display);
    EXPECT_GT(app.screenSize().width, 0);
    return NextRequest(display) - before;
  };
  auto* surface = gtk_native_get_surface(GTK_NATIVE(stage.gtkWindow));
  auto* monitor = gdk_display_get_monitor_at_surface(gdk_display_get_default(), surface);
  auto* monitors = G_OBJECT(gdk_display_get_monitors(gdk_display_get_default()));
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"another key window", [&] { stage.hideWindow(), stage.showWindow(); }},
      {"enters", [&] { g_signal_emit_by_name(surface, "enter-monitor", monitor); }},
      {"leaves", [&] { g_signal_emit_by_name(surface, "leave-monitor", monitor); }},
      {"resized", [&] { g_object_notify(G_OBJECT(monitor), "geometry"); }},
      {"plugged in", [&] { g_signal_emit_by_name(monitors, "items-changed", 0u, 0u, 0u); }},
  };
  for (const auto& [what, change] : changes) {
    change();
    EXPECT_GT(asks(), 0u) << what;
    EXPECT_EQ(asks(), 0u);
  }
}

TEST_F(Presentation, CompletesOnceWithoutAnimations) {
  auto* settings = gtk_widget_get_settings(stage.button);
  g_object_set(settings, "gtk-enable-animations", FALSE, nullptr);
  int presented = 0, dismissed = 0;
  stage.host()->present(controller, [&] { ++presented; });
  controller->dismiss([&] { ++dismissed; });
  controller->dismiss([&] { ++dismissed; });
  EXPECT_EQ(presented + dismissed, 0);
  EXPECT_TRUE(spinUntil([&] { return dismissed == 2; }));
  EXPECT_EQ(presented, 1);
  EXPECT_FALSE(controller->isPresented());
  g_object_set(settings, "gtk-enable-animations", TRUE, nullptr);
}

TEST_F(Presentation, SurvivesAHiddenWindowAndCoversNewContentOfTheHost) {
  stage.present(controller);
  for (int i = 0; i < 5; ++i) {
    const int before = stage.stateChanges;
    stage.hideWindow();
    EXPECT_EQ(app.state(), HostApplication::State::background);
    EXPECT_GT(stage.stateChanges, before);
    stage.pass(0.05);
    stage.showWindow();
    ASSERT_TRUE(spinUntil([&] { return app.state() == HostApplication::State::active; }));
    EXPECT_GT(stage.stateChanges, before + 1);
    drawFrame(stage.gtkWindow);
  }
  int actions = 0;
  auto button = addButton({100, 100, 60, 60}, actions);
  auto* later = gtk_button_new_with_label("Later");
  gtk_window_set_child(stage.gtkWindow, later);
  stage.tap({130, 130});
  EXPECT_TRUE(spinUntil([&] { return actions == 1; }));
  EXPECT_FALSE(gtk_widget_get_mapped(later));
  stage.dismiss(controller);
  EXPECT_TRUE(gtk_widget_get_mapped(later));
  EXPECT_EQ(gtk_window_get_child(stage.gtkWindow), later);
}

TEST_F(Presentation, CoversTheHostsTitleBarButNotThatOfGtk) {
  for (const bool isHosts : {false, true}) {
    auto* window = GTK_WINDOW(gtk_window_new());
    auto* bar = gtk_header_bar_new();
    // This style class marks GTK's own title bar, which GTK does not create on this display.
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
