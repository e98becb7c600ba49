#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/core/Guarded.h>
#include <Kelvara/platform/DispatchQueue.h>

namespace kva::test {

/// `Subject` has
///   DispatchQueue& queue();  // MainQueue& for MainQueueContract, SerialQueue& for SerialQueue's
///   bool spinUntil(const std::function<bool()>&);  // false after a generous limit
///   void destroyQueue();                           // MainQueueContract alone
template <class Subject>
class QueueContract : public testing::Test {
 protected:
  void note(std::string what) {
    notes.with([&](auto& all) { all.push_back(std::move(what)); });
  }
  bool waitForNotes(std::size_t count) {
    return subject.spinUntil([&] { return notes.get().size() >= count; });
  }

  Guarded<std::vector<std::string>> notes;
  Subject subject;
};

TYPED_TEST_SUITE_P(QueueContract);

TYPED_TEST_P(QueueContract, RunsInTheOrderGiven) {
  std::vector<std::string> expected;
  for (int i = 0; i < 100; ++i) {
    expected.push_back(std::to_string(i));
    this->subject.queue().async([this, i] { this->note(std::to_string(i)); });
  }
  ASSERT_TRUE(this->waitForNotes(expected.size()));
  EXPECT_EQ(this->notes.get(), expected);
}

TYPED_TEST_P(QueueContract, NeverRunsATaskInsideAnother) {
  this->subject.queue().async([this] {
    this->note("outer begins");
    this->subject.queue().async([this] {
      this->note("inner begins");
      this->subject.queue().async([this] { this->note("innermost"); });
      this->note("inner ends");
    });
    this->note("outer ends");
  });
  ASSERT_TRUE(this->waitForNotes(5));
  EXPECT_EQ(this->notes.get(),
            (std::vector<std::string>{"outer begins", "outer ends", "inner begins", "inner ends",
                                      "innermost"}));
}

TYPED_TEST_P(QueueContract, KeepsEachThreadsOrderAndRunsOneAtATime) {
  constexpr int kThreads = 4, kTasks = 50;
  // Touched by the tasks alone, one after the other.
  std::vector<int> last(kThreads, -1);
  std::atomic<bool> busy{false};
  std::atomic<int> ran{0};
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&, thread] {
        for (int i = 0; i < kTasks; ++i)
          this->subject.queue().async([&, thread, i] {
            EXPECT_FALSE(busy.exchange(true));
            EXPECT_EQ(std::exchange(last[static_cast<std::size_t>(thread)], i), i - 1);
            busy = false;
            ++ran;
          });
      });
  }
  EXPECT_TRUE(this->subject.spinUntil([&] { return ran == kThreads * kTasks; }));
}

TYPED_TEST_P(QueueContract, ReleasesATaskThatHasRun) {
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watched = held;
  this->subject.queue().async([held = std::move(held)] {});
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

REGISTER_TYPED_TEST_SUITE_P(QueueContract, RunsInTheOrderGiven, NeverRunsATaskInsideAnother,
                            KeepsEachThreadsOrderAndRunsOneAtATime, ReleasesATaskThatHasRun);

template <class Subject>
class MainQueueContract : public QueueContract<Subject> {};
TYPED_TEST_SUITE_P(MainQueueContract);

TYPED_TEST_P(MainQueueContract, RunsLaterOnTheMainThread) {
  EXPECT_TRUE(this->subject.queue().isMainThread());
  bool ran = false;
  this->subject.queue().async([&] {
    EXPECT_TRUE(this->subject.queue().isMainThread());
    ran = true;
  });
  EXPECT_FALSE(ran);
  EXPECT_TRUE(this->subject.spinUntil([&] { return ran; }));
}

TYPED_TEST_P(MainQueueContract, DropsWhatHasNotBegunWhenItIsDestroyed) {
  bool ran = false;
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watched = held;
  this->subject.queue().async([&ran, held = std::move(held)] { ran = true; });
  this->subject.destroyQueue();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
  EXPECT_FALSE(ran);
}

REGISTER_TYPED_TEST_SUITE_P(MainQueueContract, RunsLaterOnTheMainThread,
                            DropsWhatHasNotBegunWhenItIsDestroyed);

template <class Subject>
class SerialQueueContract : public QueueContract<Subject> {};
TYPED_TEST_SUITE_P(SerialQueueContract);

TYPED_TEST_P(SerialQueueContract, SyncReturnsAfterTheTaskAndAfterWhatWasGivenBefore) {
  auto& queue = this->subject.queue();
  for (int i = 0; i < 3; ++i) queue.async([this, i] { this->note(std::to_string(i)); });
  queue.sync([this] { this->note("sync"); });
  EXPECT_EQ(this->notes.get(), (std::vector<std::string>{"0", "1", "2", "sync"}));
}

TYPED_TEST_P(SerialQueueContract, SyncOnTheQueueItselfRunsInline) {
  auto& queue = this->subject.queue();
  queue.async([this, &queue] {
    queue.async([this] { this->note("later"); });
    queue.sync([this, &queue] {
      queue.sync([this] { this->note("innermost"); });
      this->note("inline");
    });
    this->note("ends");
  });
  ASSERT_TRUE(this->waitForNotes(4));
  EXPECT_EQ(this->notes.get(), (std::vector<std::string>{"innermost", "inline", "ends", "later"}));
}

REGISTER_TYPED_TEST_SUITE_P(SerialQueueContract, SyncReturnsAfterTheTaskAndAfterWhatWasGivenBefore,
                            SyncOnTheQueueItselfRunsInline);

}  // namespace kva::test
