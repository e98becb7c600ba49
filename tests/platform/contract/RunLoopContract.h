#pragma once

#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/platform/RunLoop.h>

namespace kva::test {

/// `Subject` has
///   RunLoop& runLoop();
///   bool spinUntil(const std::function<bool()>&);  // turns this thread's loop; false after a
///   limit void holdUp(double seconds);                   // time passes, the loop does not turn
template <class Subject>
class RunLoopContract : public testing::Test {
 protected:
  /// Turns the loop until a timer of so many seconds, scheduled now, has fired.
  void pass(double seconds) {
    bool passed = false;
    auto fence = subject.runLoop().schedule(seconds, Repeats::no, [&] { passed = true; });
    ASSERT_TRUE(subject.spinUntil([&] { return passed; }));
  }

  Subject subject;
  int fired = 0;
};
TYPED_TEST_SUITE_P(RunLoopContract);

TYPED_TEST_P(RunLoopContract, OneShotFiresOnceAndInTimeOrder) {
  std::vector<int> order;
  auto& loop = this->subject.runLoop();
  auto late = loop.schedule(0.06, Repeats::no, [&] { order.push_back(2); });
  auto early = loop.schedule(0.02, Repeats::no, [&] { order.push_back(1); });
  EXPECT_TRUE(order.empty());
  this->pass(0.12);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TYPED_TEST_P(RunLoopContract, RepeatingFiresUntilItIsDropped) {
  auto timer = this->subject.runLoop().schedule(0.01, Repeats::yes, [this] { ++this->fired; });
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->fired >= 3; }));
  timer.invalidate();
  const int before = this->fired;
  this->pass(0.05);
  EXPECT_EQ(this->fired, before);
}

TYPED_TEST_P(RunLoopContract, ADroppedHandleMeansSilence) {
  auto& loop = this->subject.runLoop();
  {
    auto dropped = loop.schedule(0.01, Repeats::no, [this] { ++this->fired; });
  }
  auto replaced = loop.schedule(0.01, Repeats::yes, [this] { ++this->fired; });
  replaced = Timer();
  auto elsewhere = loop.schedule(0.01, Repeats::yes, [this] { ++this->fired; });
  std::thread([&] { elsewhere.invalidate(); }).join();
  this->pass(0.05);
  EXPECT_EQ(this->fired, 0);
}

TYPED_TEST_P(RunLoopContract, MayBeDroppedFromItsOwnCallback) {
  for (const auto repeats : {Repeats::no, Repeats::yes}) {
    this->fired = 0;
    auto held = std::make_shared<int>(7);
    const std::weak_ptr<int> watched = held;
    auto timer = std::make_shared<Timer>();
    *timer = this->subject.runLoop().schedule(0.01, repeats, [this, timer, held] {
      ++this->fired;
      timer->invalidate();
      EXPECT_EQ(*held, 7) << "what the callback holds lives until it returns";
    });
    held.reset();
    ASSERT_TRUE(this->subject.spinUntil([&] { return this->fired > 0; }));
    this->pass(0.05);
    EXPECT_EQ(this->fired, 1);
    EXPECT_TRUE(watched.expired());
  }
}

TYPED_TEST_P(RunLoopContract, MaySilenceAnotherTimerAndScheduleFromACallback) {
  auto& loop = this->subject.runLoop();
  Timer victim = loop.schedule(0.05, Repeats::no, [this] { this->fired += 100; });
  Timer next;
  Timer first = loop.schedule(0.01, Repeats::no, [&] {
    victim.invalidate();
    next = loop.schedule(0.01, Repeats::no, [this] { ++this->fired; });
  });
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->fired > 0; }));
  this->pass(0.08);
  EXPECT_EQ(this->fired, 1);
}

TYPED_TEST_P(RunLoopContract, ARepeatingTimerThatWasHeldUpFiresOnce) {
  auto& loop = this->subject.runLoop();
  auto timer = loop.schedule(0.05, Repeats::yes, [this] { ++this->fired; });
  bool passed = false;
  auto fence = loop.schedule(0.4, Repeats::no, [&] { passed = true; });
  this->subject.holdUp(0.5);
  ASSERT_TRUE(this->subject.spinUntil([&] { return passed; }));
  EXPECT_GE(this->fired, 1);
  EXPECT_LE(this->fired, 2) << "the ten that were missed are not made up for";
}

TYPED_TEST_P(RunLoopContract, TakesAnyInterval) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  auto& loop = this->subject.runLoop();
  std::vector<Timer> timers;
  for (const double never : {kInfinity, -kInfinity, kNaN, 1e18, 1e300})
    timers.push_back(loop.schedule(never, Repeats::yes, [this] { this->fired += 100; }));
  int soon = 0;
  for (const double shortest : {0.0, -5.0, 1e-9})
    timers.push_back(loop.schedule(shortest, Repeats::yes, [&] { ++soon; }));
  EXPECT_EQ(soon, 0);
  this->pass(0.05);  // the loop still turns for others
  EXPECT_GE(soon, 3);
  EXPECT_LE(soon, 200) << "no more than one in a millisecond";
  EXPECT_EQ(this->fired, 0);
}

REGISTER_TYPED_TEST_SUITE_P(RunLoopContract, OneShotFiresOnceAndInTimeOrder,
                            RepeatingFiresUntilItIsDropped, ADroppedHandleMeansSilence,
                            MayBeDroppedFromItsOwnCallback,
                            MaySilenceAnotherTimerAndScheduleFromACallback,
                            ARepeatingTimerThatWasHeldUpFiresOnce, TakesAnyInterval);

}  // namespace kva::test
