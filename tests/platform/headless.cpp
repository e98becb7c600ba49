// What the headless platform offers a test beyond the ports.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva::headless {
namespace {

TEST(VirtualTime, RunsTimersQueuesAndAnswersInOneOrder) {
  Headless h;
  const Platform platform = h.platform();
  std::vector<std::string> order;
  auto note = [&](std::string what) { return [&order, what] { order.push_back(what); }; };
  h.server.reply("/late", "", 0.3);
  for (const auto* path : {"/late", "/unknown"})
    platform.urlSession->send(
        {.url = *URL::parse(h.apiBases.sandbox + path), .method = "GET", .headers = {}, .body = {}},
        [&, path](URLSession::Outcome outcome) {
          order.push_back(path + std::string(outcome.error ? " failed" : ""));
        });
  platform.mainQueue->async(note("main"));
  auto tick = platform.runLoop->schedule(0.2, Repeats::yes, [&] {
    order.push_back("tick");
    platform.mainQueue->async(note("after tick"));
  });
  h.time.run();
  EXPECT_EQ(order, (std::vector<std::string>{"/unknown failed", "main"}));
  order.clear();
  for (int i = 0; i < 4; ++i) h.time.advance(0.1);
  EXPECT_EQ(order, (std::vector<std::string>{"tick", "after tick", "/late", "tick", "after tick"}));
}

TEST(VirtualTime, TheWallClockIsTheUsersToSet) {
  Headless h;
  int fired = 0;
  auto timer = h.time.schedule(10, Repeats::no, [&] { ++fired; });
  h.time.setNow(1'000'000);
  h.time.advance(9.5);
  EXPECT_DOUBLE_EQ(h.time.now(), 1'000'009.5);
  EXPECT_EQ(fired, 0);
  h.time.setNow(5);
  h.time.advance(0.5);
  EXPECT_EQ(fired, 1);
  EXPECT_DOUBLE_EQ(h.time.elapsed(), 10);
}

TEST(Headless, TheServerSaysWhatItWasSent) {
  Headless h;
  URLRequest request{.url = *URL::parse(h.apiBases.sandbox + "/bid/init?type=0&unit=a%20b&flag"),
                     .method = "POST",
                     .headers = {{"Accept", "application/json"}},
                     .body = toBytes(R"({"n":5})")};
  h.platform().urlSession->send(request, [](URLSession::Outcome) {});
  const auto sent = h.server.lastRequest("/bid/init");
  EXPECT_EQ(sent.base, h.apiBases.sandbox);
  EXPECT_EQ(sent.query,
            (std::map<std::string, std::string>{{"type", "0"}, {"unit", "a%20b"}, {"flag", ""}}));
  EXPECT_EQ(sent.body, R"({"n":5})");
  EXPECT_EQ(h.server.count("/init"), 0);
}

TEST(Headless, ARuntimeThatEndsLeavesTheDeviceToTheNext) {
  Headless h;
  h.server.reply("/init", envelope("{}"));
  const URLRequest request{.url = *URL::parse(h.apiBases.production + "/init"),
                           .method = "GET",
                           .headers = {},
                           .body = {}};
  std::vector<std::int64_t> codes;
  auto send = [&](Runtime& runtime) {
    runtime.platform().urlSession->send(request, [&](URLSession::Outcome outcome) {
      codes.push_back(outcome.error ? outcome.error->code() : 0);
    });
  };
  bool ran = false;
  {
    Runtime first(h.platform());
    first.platform().userDefaults->set("key", true);
    first.platform().mainQueue->async([&] { ran = true; });
    send(first);
  }
  EXPECT_EQ(codes, (std::vector<std::int64_t>{999}));
  Runtime second(h.platform());
  EXPECT_EQ(second.platform().userDefaults->get<bool>("key"), true);
  send(second);
  h.time.run();
  EXPECT_EQ(codes, (std::vector<std::int64_t>{999, 0}));
  EXPECT_TRUE(Headless(h.defaults).defaults.get<bool>("key"));
}

TEST(Headless, TurningTheDeviceIsPostedOnTheMainQueueOrAtOnce) {
  Headless h;
  int turned = 0;
  auto observation = h.platform().notificationCenter->addObserver(kOrientationDidChangeNotification,
                                                                  nullptr, [&] { ++turned; });
  h.device.setOrientation(DeviceOrientation::landscapeLeft);
  EXPECT_EQ(turned, 0);
  h.time.run();
  EXPECT_EQ(turned, 1);
  h.device.setOrientationNow(DeviceOrientation::portrait);
  EXPECT_EQ(turned, 2);
}

TEST(Headless, ReachabilityFailsWhereATestWants) {
  using Operation = HeadlessReachability::Operation;
  Headless h;
  auto& service = h.reachability;
  service.fail(Operation::create, 1003);
  EXPECT_FALSE(service.createWithName("example.test"));
  EXPECT_EQ(service.lastError(), 1003);
  service.fail(Operation::create, {});
  auto reference = service.createWithAddress(0);
  ASSERT_TRUE(reference);
  EXPECT_EQ(service.lastTarget(), "0.0.0.0");

  service.fail(Operation::flags, 7);
  EXPECT_FALSE(reference->flags());
  EXPECT_EQ(reference->lastError(), 7);
  service.fail(Operation::setCallback, 8);
  EXPECT_FALSE(reference->setCallback([](std::uint32_t) {}));
  EXPECT_TRUE(reference->setCallback(nullptr)) << "taking it back always works";
  service.fail(Operation::setDispatchQueue, 9);
  EXPECT_FALSE(reference->setDispatchQueue(service.makeSerialQueue("")));
  EXPECT_EQ(reference->lastError(), 9);
  EXPECT_EQ(service.watchers(), 0);
}

TEST(Headless, CountsWhatLivesAndTapsWhatIsShown) {
  Headless h;
  auto& app = h.application;
  auto window = app.makeWindow();
  int tapped = 0;
  auto button = app.makeButton();
  button->setImage({.bundle = {}, .name = "icon.close"}, {});
  button->setAction([&] { ++tapped; });
  EXPECT_FALSE(window->tap(button->view())) << "in no window";
  window->view()->addSubview(button->view(), Layout::frame({10, 10, 60, 60}));
  EXPECT_TRUE(window->tap(button->view()));
  auto cover = app.makeView({});
  window->view()->addSubview(cover, Layout::edges(Layout::Area::plain));
  EXPECT_FALSE(window->tap(button->view())) << "covered";
  EXPECT_TRUE(window->activate(button)) << "a key reaches what a finger does not";
  EXPECT_EQ(tapped, 2);
  EXPECT_EQ(app.button("icon.close"), button);
  EXPECT_EQ(app.liveViews(), 2);
  button->view()->removeFromSuperview();
  button.reset();
  EXPECT_EQ(app.liveViews(), 1);
  EXPECT_EQ(app.liveButtons(), 0);
}

}  // namespace
}  // namespace kva::headless
