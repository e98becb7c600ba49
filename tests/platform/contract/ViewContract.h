#pragma once

#include <gmock/gmock.h>

#include <support/Recorders.h>

namespace kva::test {

/// `Subject` makes an application that shows one window with safe-area insets, and has
///   HostApplication& application();
///   std::shared_ptr<Window> window();
///   std::shared_ptr<ViewController> host();        // the host's controller in that window
///   bool spinUntil(const std::function<bool()>&);  // runs the main loop; false after a limit
///   void pass(double seconds);                     // runs the main loop for `seconds`
///   void resize(Size);                             // requests a new size of the window
///   void tap(Point);                               // presses and releases in the window
///   void pressEscape();
///   void hideWindow();
///   void showWindow();
///   void destroyWindow();
template <class Subject>
class ViewContract : public testing::Test {
 protected:
  ViewContract() : app(subject.application()), root(subject.window()->view()) {
    EXPECT_TRUE(subject.spinUntil([this] { return windowSize().width > 0; }));
    root->addSubview(stage, Layout::edges(Layout::Area::plain));
  }

  Size windowSize() { return subject.window()->frame().size(); }

  std::shared_ptr<View> add(const std::shared_ptr<View>& superview, Layout layout) {
    auto view = app.makeView({});
    superview->addSubview(view, layout);
    return view;
  }
  void expectFrame(const std::shared_ptr<View>& view, Rect wanted) {
    using testing::DoubleNear, testing::Matches;
    const auto isThere =
        testing::FieldsAre(DoubleNear(wanted.x, 1), DoubleNear(wanted.y, 1),
                           DoubleNear(wanted.width, 1), DoubleNear(wanted.height, 1));
    Rect place{};
    subject.spinUntil([&] {
      place = view->frameInWindow().value_or(Rect{});
      return Matches(isThere)(place);
    });
    EXPECT_THAT(place, isThere);
  }

  /// Presents a new controller over `from` and waits for the completion.
  std::shared_ptr<ViewController> present(const std::shared_ptr<ViewController>& from,
                                          std::weak_ptr<ViewControllerDelegate> delegate) {
    auto controller = app.makeViewController();
    controller->setDelegate(delegate);
    int completed = 0;
    from->present(controller, [&] { ++completed; });
    EXPECT_EQ(completed, 0) << "not before present returns";
    EXPECT_TRUE(controller->isPresented());
    EXPECT_TRUE(subject.spinUntil([&] { return completed > 0; }));
    EXPECT_EQ(controller->view()->window(), subject.window());
    const Size size = windowSize();
    expectFrame(controller->view(), {0, 0, size.width, size.height});
    EXPECT_EQ(completed, 1);
    return controller;
  }
  void dismiss(const std::shared_ptr<ViewController>& controller) {
    bool completed = false;
    controller->dismiss([&] { completed = true; });
    EXPECT_FALSE(completed);
    EXPECT_TRUE(subject.spinUntil([&] { return completed; }));
    EXPECT_FALSE(controller->isPresented());
    EXPECT_FALSE(controller->view()->window());
  }

  Subject subject;
  HostApplication& app;
  std::shared_ptr<View> root;
  std::shared_ptr<View> stage = app.makeView({});  ///< over the whole window
};
TYPED_TEST_SUITE_P(ViewContract);

TYPED_TEST_P(ViewContract, LaysOutByEdgesAndCornersAndFollowsTheWindow) {
  using enum Layout::Area;
  using enum Layout::Corner;
  const Size box{60, 40};
  const EdgeInsets insets = this->subject.window()->safeAreaInsets();
  EXPECT_GT(insets.top + insets.bottom, 0) << "the subject needs insets";
  auto fixed = this->add(this->stage, Layout::frame({11, 22, 33, 44}));
  auto nested = this->add(fixed, Layout::atCorner(bottomTrailing, {10, 10}, plain));
  std::vector<std::pair<std::shared_ptr<View>, Layout>> views;
  for (const auto area : {plain, safe}) {
    views.emplace_back(nullptr, Layout::edges(area));
    for (const auto corner : {topLeading, topTrailing, bottomLeading, bottomTrailing})
      views.emplace_back(nullptr, Layout::atCorner(corner, box, area));
  }
  for (auto& [view, layout] : views) view = this->add(this->stage, layout);

  const auto check = [&] {
    const Size size = this->windowSize();
    for (const auto& [view, layout] : views) {
      const EdgeInsets in = layout.area == safe ? insets : EdgeInsets{};
      Rect wanted{in.left, in.top, size.width - in.left - in.right,
                  size.height - in.top - in.bottom};
      if (layout.kind == Layout::Kind::corner) {
        if (layout.corner == topTrailing || layout.corner == bottomTrailing)
          wanted.x += wanted.width - box.width;
        if (layout.corner == bottomLeading || layout.corner == bottomTrailing)
          wanted.y += wanted.height - box.height;
        wanted.width = box.width;
        wanted.height = box.height;
      }
      this->expectFrame(view, wanted);
    }
    this->expectFrame(fixed, {11, 22, 33, 44});
    this->expectFrame(nested, {11 + 23, 22 + 34, 10, 10});
    EXPECT_NEAR(nested->frame().x, 23, 1) << "in the superview's coordinates";
  };
  check();
  const Size before = this->windowSize();
  this->subject.resize({before.width + 80, before.height + 60});
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->windowSize().width > before.width + 1; }));
  check();

  // A superview that is lower than the insets or the box shrinks the box, and keeps it inside.
  auto low = this->add(this->stage, Layout::frame({0, 0, 100, 25}));
  for (const auto corner : {topLeading, topTrailing, bottomLeading, bottomTrailing})
    EXPECT_EQ(this->add(low, Layout::atCorner(corner, {60, 60}, safe))->frame().size(),
              (Size{60, 25}));
  low->removeFromSuperview();
  const double width = this->windowSize().width;
  auto wide = this->add(this->stage, Layout::frame({0, 0, width, 70}));
  auto inside = this->add(wide, Layout::atCorner(topTrailing, {60, 60}, safe));
  this->expectFrame(inside, {width - insets.right - 60, 10, 60, 60});
}

TYPED_TEST_P(ViewContract, NotifiesASubtreeOfItsWindowAndOwnsSubviews) {
  auto parent = this->app.makeView({});
  auto child = this->add(parent, Layout::frame({0, 0, 10, 10}));
  auto parentEvents = std::make_shared<ViewRecorder>();
  auto childEvents = std::make_shared<ViewRecorder>();
  bool hadWindow = false;
  childEvents->moved = [&] { hadWindow = child->window() != nullptr; };
  parent->setDelegate(parentEvents);
  child->setDelegate(childEvents);
  EXPECT_EQ(child->superview(), parent);
  EXPECT_FALSE(child->window());
  EXPECT_FALSE(child->frameInWindow());

  this->stage->addSubview(parent, Layout::frame({5, 5, 50, 50}));
  EXPECT_TRUE(this->subject.spinUntil([&] { return parentEvents->moves && childEvents->moves; }));
  EXPECT_TRUE(hadWindow);
  EXPECT_EQ(child->window(), this->subject.window());

  parentEvents->moves = childEvents->moves = 0;
  parent->removeFromSuperview();
  EXPECT_FALSE(parent->superview());
  EXPECT_TRUE(this->subject.spinUntil([&] { return parentEvents->moves && childEvents->moves; }));
  EXPECT_FALSE(hadWindow);
  EXPECT_EQ(child->superview(), parent) << "only the parent was removed";
  parent->removeFromSuperview();

  auto second = this->add(this->stage, Layout::frame({100, 0, 100, 100}));
  second->addSubview(child, Layout::frame({3, 4, 10, 10}));
  EXPECT_EQ(child->superview(), second);
  this->expectFrame(child, {103, 4, 10, 10});
  const std::weak_ptr<View> watched = child;
  childEvents->moved = [] {};
  child.reset();
  ASSERT_FALSE(watched.expired()) << "the superview owns it";
  watched.lock()->removeFromSuperview();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

TYPED_TEST_P(ViewContract, ATouchReachesTheTopmostViewAndItsSuperviews) {
  std::vector<std::string> order;
  auto touched = std::make_shared<ViewRecorder>();
  touched->touched = [&] { order.push_back("touched"); };
  this->stage->setDelegate(touched);
  auto makeButton = [&](const char* name) {
    auto button = this->app.makeButton();
    button->setAction([&order, name] { order.push_back(name); });
    this->stage->addSubview(button->view(), Layout::frame({100, 100, 60, 60}));
    return button;
  };
  auto below = makeButton("below"), button = makeButton("above");
  auto above = button->view();
  this->expectFrame(above, {100, 100, 60, 60});

  auto expectTapReaches = [&](const char* name) {
    order.clear();
    this->subject.tap({130, 130});
    EXPECT_TRUE(this->subject.spinUntil([&] { return order.size() >= 2; }));
    EXPECT_EQ(order, (std::vector<std::string>{"touched", name}));
  };
  expectTapReaches("above");
  above->sendToBack();
  expectTapReaches("below");
  above->bringToFront();
  expectTapReaches("above");
  above->setHidden(true);
  EXPECT_TRUE(above->isHidden());
  expectTapReaches("below");

  // An empty view that clips hides its subviews.
  auto holder = this->add(this->stage, Layout::frame({0, 0, 0, 0}));
  holder->setClipsToBounds(true);
  above->setHidden(false);
  holder->addSubview(above, Layout::frame({100, 100, 60, 60}));
  expectTapReaches("below");
}

TYPED_TEST_P(ViewContract, PresentsOverTheWindowAndDismisses) {
  auto lower = std::make_shared<ControllerRecorder>(),
       upper = std::make_shared<ControllerRecorder>();
  auto controller = this->present(this->subject.host(), lower);
  auto another = this->present(controller, upper);
  this->subject.pressEscape();
  EXPECT_TRUE(this->subject.spinUntil([&] { return upper->cancels == 1; }));
  EXPECT_EQ(lower->cancels, 0) << "only the top controller gets Escape";
  EXPECT_TRUE(another->isPresented()) << "only the delegate dismisses it";
  this->dismiss(another);
  EXPECT_TRUE(controller->isPresented());
  this->subject.pressEscape();
  EXPECT_TRUE(this->subject.spinUntil([&] { return lower->cancels == 1; }));
  EXPECT_EQ(upper->cancels, 1);
  this->dismiss(controller);
  EXPECT_EQ(this->subject.host()->view()->window(), this->subject.window());
  const std::weak_ptr<ViewController> watched = controller;
  controller.reset();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

TYPED_TEST_P(ViewContract, PresentationWaitsForItsWindowToBeOnScreen) {
  auto delegate = std::make_shared<ControllerRecorder>();
  auto controller = this->app.makeViewController(), dismissed = this->app.makeViewController();
  controller->setDelegate(delegate);
  bool completed = false;
  EXPECT_TRUE(this->subject.window()->isOnScreen());
  this->subject.hideWindow();
  EXPECT_FALSE(this->subject.window()->isOnScreen());
  this->subject.host()->present(controller, [&] { completed = true; });
  controller->present(dismissed, [] { ADD_FAILURE() << "dismissed before"; });
  EXPECT_TRUE(controller->isPresented());
  this->dismiss(dismissed);
  this->subject.pass(1);
  EXPECT_FALSE(completed);
  this->subject.showWindow();
  EXPECT_TRUE(this->subject.spinUntil([&] { return completed; }));
  EXPECT_EQ(delegate->screenChanges, 0);
  this->subject.hideWindow();
  EXPECT_TRUE(this->subject.spinUntil([&] { return delegate->screenChanges == 1; }));
  this->subject.showWindow();
  EXPECT_TRUE(this->subject.spinUntil([&] { return delegate->screenChanges == 2; }));
  this->dismiss(controller);
}

TYPED_TEST_P(ViewContract, DestroyingAWindowTearsDownItsControllers) {
  std::vector<std::shared_ptr<ControllerRecorder>> listeners;
  const auto listener = [&] {
    return listeners.emplace_back(std::make_shared<ControllerRecorder>());
  };
  const auto allAreTornDown = [&] {
    return std::ranges::all_of(listeners, [](const auto& one) { return one->tornDown == 1; });
  };
  auto host = this->subject.host();
  auto shown = this->present(host, listener());
  auto underWay = this->app.makeViewController();
  underWay->setDelegate(listener());
  shown->present(underWay, [] { ADD_FAILURE() << "its window was destroyed first"; });
  shown->dismiss([] { ADD_FAILURE() << "its window was destroyed first"; });
  this->root.reset();
  this->stage.reset();
  this->subject.destroyWindow();
  EXPECT_TRUE(this->subject.spinUntil(allAreTornDown));
  EXPECT_FALSE(shown->isPresented());
  EXPECT_FALSE(shown->view()->window());
  EXPECT_FALSE(this->app.keyWindow());
  EXPECT_FALSE(host->view()->window());
  this->subject.pass(1);  // longer than any animation
  EXPECT_TRUE(allAreTornDown()) << "once each";
}

REGISTER_TYPED_TEST_SUITE_P(ViewContract, LaysOutByEdgesAndCornersAndFollowsTheWindow,
                            NotifiesASubtreeOfItsWindowAndOwnsSubviews,
                            ATouchReachesTheTopmostViewAndItsSuperviews,
                            PresentsOverTheWindowAndDismisses,
                            PresentationWaitsForItsWindowToBeOnScreen,
                            DestroyingAWindowTearsDownItsControllers);

}  // namespace kva::test
