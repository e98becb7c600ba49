#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/platform/HostApplication.h>

namespace kva::test {

/// `Subject` makes an application with one window on show, which has safe-area insets, and has
///   HostApplication& application();
///   std::shared_ptr<Window> window();
///   std::shared_ptr<ViewController> host();  // the host's own controller, of that window
///   bool spinUntil(const std::function<bool()>&);  // turns the main loop; false after a limit
///   void pass(double seconds);                     // turns the main loop for so long
///   void resize(Size);                             // asks for another size of the window
///   void tap(Point);                               // a press and release there in the window
///   void pressEscape();
///   void destroyWindow();
template <class Subject>
class ViewContract : public testing::Test {
 protected:
  struct Listener : ViewDelegate {
    std::function<void()> moved, touched;
    int moves = 0, touches = 0;
    void viewDidMoveToWindow() override {
      ++moves;
      if (moved) moved();
    }
    void viewWasTouched() override {
      ++touches;
      if (touched) touched();
    }
  };
  struct ControllerListener : ViewControllerDelegate {
    int cancels = 0, tornDown = 0;
    void viewControllerDidRequestCancel() override { ++cancels; }
    void viewControllerWasTornDown() override { ++tornDown; }
  };

  ViewContract() : app(subject.application()), root(subject.window()->view()) {
    EXPECT_TRUE(subject.spinUntil([this] { return windowSize().width > 0; }));
  }

  Size windowSize() { return subject.window()->frame().size(); }

  /// A view over the whole window.
  std::shared_ptr<View> makeStage() {
    auto stage = app.makeView({});
    root->addSubview(stage, Layout::edges(Layout::Area::plain));
    return stage;
  }

  bool comesToStandAt(const std::shared_ptr<View>& view, Rect wanted) {
    const bool came = subject.spinUntil([&] {
      const auto place = view->frameInWindow();
      return place && near(place->x, wanted.x) && near(place->y, wanted.y) &&
             near(place->width, wanted.width) && near(place->height, wanted.height);
    });
    if (const auto place = view->frameInWindow(); !came && place)
      ADD_FAILURE() << "stands at " << place->x << " " << place->y << " " << place->width << " "
                    << place->height << ", not " << wanted.x << " " << wanted.y << " "
                    << wanted.width << " " << wanted.height;
    return came;
  }
  bool fillsWindow(const std::shared_ptr<View>& view) {
    const Size size = windowSize();
    return comesToStandAt(view, {0, 0, size.width, size.height});
  }
  static bool near(double a, double b) { return std::abs(a - b) < 1; }

  std::shared_ptr<Button> makeButton(std::function<void()> action) {
    auto button = app.makeButton();
    button->setAction(std::move(action));
    return button;
  }

  /// Presents a new controller over `from`, and waits until it has been.
  std::shared_ptr<ViewController> present(const std::shared_ptr<ViewController>& from) {
    auto controller = app.makeViewController();
    bool completed = false;
    from->present(controller, [&] { completed = true; });
    EXPECT_TRUE(subject.spinUntil([&] { return completed; }));
    return controller;
  }
  void dismiss(const std::shared_ptr<ViewController>& controller) {
    bool completed = false;
    controller->dismiss([&] { completed = true; });
    EXPECT_FALSE(completed);
    EXPECT_TRUE(subject.spinUntil([&] { return completed; }));
  }

  Subject subject;
  HostApplication& app;
  std::shared_ptr<View> root;
};
TYPED_TEST_SUITE_P(ViewContract);

TYPED_TEST_P(ViewContract, LaysOutByEdgesAndCornersAndFollowsTheWindow) {
  using Area = Layout::Area;
  using Corner = Layout::Corner;
  auto stage = this->makeStage();
  auto add = [&](Layout layout) {
    auto view = this->app.makeView({});
    stage->addSubview(view, layout);
    return view;
  };
  const Size box{60, 40};
  auto whole = add(Layout::edges(Area::plain));
  auto safe = add(Layout::edges(Area::safe));
  auto topLeading = add(Layout::atCorner(Corner::topLeading, box, Area::safe));
  auto topTrailing = add(Layout::atCorner(Corner::topTrailing, box, Area::safe));
  auto bottomLeading = add(Layout::atCorner(Corner::bottomLeading, box, Area::safe));
  auto bottomTrailing = add(Layout::atCorner(Corner::bottomTrailing, box, Area::safe));
  auto plainCorner = add(Layout::atCorner(Corner::bottomTrailing, box, Area::plain));
  auto fixed = add(Layout::frame({11, 22, 33, 44}));
  auto nested = this->app.makeView({});
  fixed->addSubview(nested, Layout::atCorner(Corner::bottomTrailing, {10, 10}, Area::plain));

  const EdgeInsets insets = this->subject.window()->safeAreaInsets();
  EXPECT_GT(insets.top + insets.bottom, 0) << "a subject without insets shows little";
  auto check = [&] {
    const Size size = this->windowSize();
    const double right = size.width - insets.right - box.width;
    const double bottom = size.height - insets.bottom - box.height;
    EXPECT_TRUE(this->fillsWindow(whole));
    EXPECT_TRUE(this->comesToStandAt(
        safe, {insets.left, insets.top, size.width - insets.left - insets.right,
               size.height - insets.top - insets.bottom}));
    EXPECT_TRUE(this->comesToStandAt(topLeading, {insets.left, insets.top, box.width, box.height}));
    EXPECT_TRUE(this->comesToStandAt(topTrailing, {right, insets.top, box.width, box.height}));
    EXPECT_TRUE(this->comesToStandAt(bottomLeading, {insets.left, bottom, box.width, box.height}));
    EXPECT_TRUE(this->comesToStandAt(bottomTrailing, {right, bottom, box.width, box.height}));
    EXPECT_TRUE(this->comesToStandAt(
        plainCorner, {size.width - box.width, size.height - box.height, box.width, box.height}));
    EXPECT_TRUE(this->comesToStandAt(fixed, {11, 22, 33, 44}));
    EXPECT_TRUE(this->comesToStandAt(nested, {11 + 23, 22 + 34, 10, 10}));
    EXPECT_TRUE(this->near(nested->frame().x, 23) && this->near(nested->frame().y, 34))
        << "in the superview's coordinates";
  };
  check();
  const Size before = this->windowSize();
  this->subject.resize({before.width + 80, before.height + 60});
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->windowSize().width > before.width + 1; }));
  check();
}

TYPED_TEST_P(ViewContract, TellsAWholeSubtreeOfItsWindow) {
  auto stage = this->makeStage();
  auto parent = this->app.makeView({}), child = this->app.makeView({});
  auto parentHears = std::make_shared<typename TestFixture::Listener>();
  auto childHears = std::make_shared<typename TestFixture::Listener>();
  parent->setDelegate(parentHears);
  child->setDelegate(childHears);

  parent->addSubview(child, Layout::frame({0, 0, 10, 10}));
  EXPECT_EQ(child->superview(), parent);
  EXPECT_FALSE(child->window());
  EXPECT_FALSE(child->frameInWindow());
  EXPECT_EQ(childHears->moves, 0);

  bool hadWindow = false;
  childHears->moved = [&] { hadWindow = child->window() != nullptr; };
  stage->addSubview(parent, Layout::frame({5, 5, 50, 50}));
  EXPECT_TRUE(this->subject.spinUntil([&] { return parentHears->moves && childHears->moves; }));
  EXPECT_TRUE(hadWindow);
  EXPECT_EQ(child->window(), this->subject.window());

  parentHears->moves = childHears->moves = 0;
  parent->removeFromSuperview();
  EXPECT_FALSE(parent->superview());
  EXPECT_TRUE(this->subject.spinUntil([&] { return parentHears->moves && childHears->moves; }));
  EXPECT_FALSE(hadWindow);
  EXPECT_EQ(child->superview(), parent) << "only the whole was taken out";
  parent->removeFromSuperview();
}

TYPED_TEST_P(ViewContract, ASuperviewOwnsItsSubviewsUntilTheyMoveOn) {
  auto stage = this->makeStage();
  auto first = this->app.makeView({}), second = this->app.makeView({});
  stage->addSubview(first, Layout::frame({0, 0, 100, 100}));
  stage->addSubview(second, Layout::frame({100, 0, 100, 100}));
  auto view = this->app.makeView({});
  const std::weak_ptr<View> watched = view;
  first->addSubview(view, Layout::frame({1, 2, 10, 10}));
  second->addSubview(view, Layout::frame({3, 4, 10, 10}));
  EXPECT_EQ(view->superview(), second);
  EXPECT_TRUE(this->comesToStandAt(view, {103, 4, 10, 10}));
  view.reset();
  first->removeFromSuperview();
  EXPECT_FALSE(watched.expired());
  if (auto alive = watched.lock()) alive->removeFromSuperview();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

TYPED_TEST_P(ViewContract, ATouchReachesTheTopmostAndAllItStandsIn) {
  auto stage = this->makeStage();
  std::vector<std::string> order;
  auto touched = std::make_shared<typename TestFixture::Listener>();
  touched->touched = [&] { order.push_back("touched"); };
  stage->setDelegate(touched);
  auto below = this->makeButton([&] { order.push_back("below"); });
  auto above = this->makeButton([&] { order.push_back("above"); });
  stage->addSubview(below->view(), Layout::frame({100, 100, 60, 60}));
  stage->addSubview(above->view(), Layout::frame({100, 100, 60, 60}));
  ASSERT_TRUE(this->comesToStandAt(above->view(), {100, 100, 60, 60}));

  auto tapHears = [&](std::vector<std::string> expected) {
    order.clear();
    this->subject.tap({130, 130});
    EXPECT_TRUE(this->subject.spinUntil([&] { return order.size() >= expected.size(); }));
    EXPECT_EQ(order, expected);
  };
  tapHears({"touched", "above"});
  above->view()->sendToBack();
  tapHears({"touched", "below"});
  above->view()->bringToFront();
  tapHears({"touched", "above"});
  above->view()->setHidden(true);
  EXPECT_TRUE(above->view()->isHidden());
  tapHears({"touched", "below"});

  // A holder without a size that clips shows nothing of what stands in it.
  auto holder = this->app.makeView({});
  holder->setClipsToBounds(true);
  stage->addSubview(holder, Layout::frame({0, 0, 0, 0}));
  above->view()->setHidden(false);
  holder->addSubview(above->view(), Layout::frame({100, 100, 60, 60}));
  tapHears({"touched", "below"});
}

TYPED_TEST_P(ViewContract, PresentsOverTheWindowAndGoesAsItCame) {
  auto content = this->subject.host()->view();
  auto controller = this->app.makeViewController();
  EXPECT_FALSE(controller->isPresented());
  int completed = 0;
  this->subject.host()->present(controller, [&] { ++completed; });
  EXPECT_EQ(completed, 0);
  EXPECT_TRUE(controller->isPresented());
  ASSERT_TRUE(this->subject.spinUntil([&] { return completed > 0; }));
  EXPECT_EQ(controller->view()->window(), this->subject.window());
  EXPECT_TRUE(this->fillsWindow(controller->view()));

  auto another = this->present(controller);
  EXPECT_TRUE(this->fillsWindow(another->view()));
  this->dismiss(another);
  EXPECT_TRUE(controller->isPresented());

  this->dismiss(controller);
  EXPECT_FALSE(controller->isPresented());
  EXPECT_FALSE(controller->view()->window());
  EXPECT_EQ(content->window(), this->subject.window());
  EXPECT_EQ(completed, 1);

  const std::weak_ptr<ViewController> watched = controller;
  controller.reset();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

TYPED_TEST_P(ViewContract, EscapeIsForTheControllerOnTop) {
  auto lower = std::make_shared<typename TestFixture::ControllerListener>();
  auto upper = std::make_shared<typename TestFixture::ControllerListener>();
  auto controller = this->present(this->subject.host());
  controller->setDelegate(lower);
  auto another = this->present(controller);
  another->setDelegate(upper);
  this->subject.pressEscape();
  EXPECT_TRUE(this->subject.spinUntil([&] { return upper->cancels == 1; }));
  EXPECT_EQ(lower->cancels, 0);
  EXPECT_TRUE(another->isPresented()) << "only the delegate decides";
  this->dismiss(another);
  this->subject.pressEscape();
  EXPECT_TRUE(this->subject.spinUntil([&] { return lower->cancels == 1; }));
  EXPECT_EQ(upper->cancels, 1);
  this->dismiss(controller);
}

TYPED_TEST_P(ViewContract, AWindowThatGoesTearsDownWhatItShows) {
  using Heard = typename TestFixture::ControllerListener;
  auto heard = std::make_shared<Heard>(), heardUnderWay = std::make_shared<Heard>();
  auto shown = this->present(this->subject.host());
  shown->setDelegate(heard);
  auto underWay = this->app.makeViewController();
  underWay->setDelegate(heardUnderWay);
  int completed = 0;
  auto host = this->subject.host();
  shown->present(underWay, [&] { ++completed; });
  shown->dismiss([&] { ++completed; });
  this->root.reset();
  this->subject.destroyWindow();
  EXPECT_TRUE(this->subject.spinUntil([&] { return heard->tornDown && heardUnderWay->tornDown; }));
  EXPECT_FALSE(shown->isPresented());
  EXPECT_FALSE(shown->view()->window());
  EXPECT_FALSE(this->app.keyWindow());

  auto late = this->app.makeViewController();
  auto heardLate = std::make_shared<Heard>();
  late->setDelegate(heardLate);
  host->present(late, [&] { ++completed; });
  EXPECT_TRUE(this->subject.spinUntil([&] { return heardLate->tornDown > 0; }));
  EXPECT_FALSE(late->isPresented());
  this->subject.pass(1);  // longer than any animation
  EXPECT_EQ(heard->tornDown, 1);
  EXPECT_EQ(heardUnderWay->tornDown, 1);
  EXPECT_EQ(heardLate->tornDown, 1);
  EXPECT_EQ(completed, 0);
}

REGISTER_TYPED_TEST_SUITE_P(ViewContract, LaysOutByEdgesAndCornersAndFollowsTheWindow,
                            TellsAWholeSubtreeOfItsWindow, ASuperviewOwnsItsSubviewsUntilTheyMoveOn,
                            ATouchReachesTheTopmostAndAllItStandsIn,
                            PresentsOverTheWindowAndGoesAsItCame, EscapeIsForTheControllerOnTop,
                            AWindowThatGoesTearsDownWhatItShows);

}  // namespace kva::test
