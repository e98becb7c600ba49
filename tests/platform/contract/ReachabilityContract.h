#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/core/Guarded.h>
#include <Kelvara/platform/ReachabilityService.h>

namespace kva::test {

/// `Subject` has
///   ReachabilityService& service();
///   bool spinUntil(const std::function<bool()>&);  // false after a generous limit
template <class Subject>
class ReachabilityContract : public testing::Test {
 protected:
  Subject subject;
};
TYPED_TEST_SUITE_P(ReachabilityContract);

TYPED_TEST_P(ReachabilityContract, GivesFlagsForTheGeneralInternet) {
  auto reference = this->subject.service().createWithAddress(0);
  ASSERT_TRUE(reference);
  const auto flags = reference->flags();
  ASSERT_TRUE(flags);
  constexpr std::uint32_t kKnown = 0x7003f;
  EXPECT_EQ(*flags & ~kKnown, 0u);
  EXPECT_EQ(reference->flags(), flags);
}

TYPED_TEST_P(ReachabilityContract, RegistersAndUnregistersInAnyOrder) {
  auto& service = this->subject.service();
  auto queue = service.makeSerialQueue("org.example.queue");
  ASSERT_TRUE(queue);
  auto reference = service.createWithAddress(0);
  EXPECT_TRUE(reference->setCallback(nullptr));
  EXPECT_TRUE(reference->setDispatchQueue(nullptr));
  EXPECT_TRUE(reference->setCallback([](std::uint32_t) {}));
  EXPECT_TRUE(reference->setDispatchQueue(queue));
  EXPECT_TRUE(reference->setCallback(nullptr));
  EXPECT_TRUE(reference->setDispatchQueue(nullptr));
  EXPECT_TRUE(reference->setDispatchQueue(queue));
  EXPECT_TRUE(reference->setCallback([](std::uint32_t) {}));
  reference.reset();

  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

REGISTER_TYPED_TEST_SUITE_P(ReachabilityContract, GivesFlagsForTheGeneralInternet,
                            RegistersAndUnregistersInAnyOrder);

/// For subjects whose network a test can change; they also have
///   void setReachable(bool);  // the way to the internet comes or goes
template <class Subject>
class ReachabilityChangeContract : public ReachabilityContract<Subject> {
 protected:
  static constexpr auto kReachable = static_cast<std::uint32_t>(ReachabilityFlag::reachable);
};
TYPED_TEST_SUITE_P(ReachabilityChangeContract);

TYPED_TEST_P(ReachabilityChangeContract, TellsOfChangesOnTheQueueUntilItIsSilenced) {
  auto& service = this->subject.service();
  this->subject.setReachable(true);
  auto queue = service.makeSerialQueue("org.example.queue");
  auto reference = service.createWithAddress(0);
  auto heard = std::make_shared<Guarded<std::vector<std::uint32_t>>>();
  auto note = [heard](std::uint32_t flags) {
    heard->with([&](auto& all) { all.push_back(flags); });
  };
  auto lastIs = [&](bool reachable) {
    return [heard, reachable] {
      const auto all = heard->get();
      return !all.empty() && ((all.back() & TestFixture::kReachable) != 0) == reachable;
    };
  };
  ASSERT_TRUE(reference->setCallback(note));
  ASSERT_TRUE(reference->setDispatchQueue(queue));
  this->subject.setReachable(false);
  EXPECT_TRUE(this->subject.spinUntil(lastIs(false)));
  EXPECT_EQ(*reference->flags() & this->kReachable, 0u);
  this->subject.setReachable(true);
  EXPECT_TRUE(this->subject.spinUntil(lastIs(true)));

  ASSERT_TRUE(reference->setCallback(nullptr));
  queue->sync([] {});
  const auto before = heard->get().size();
  // A second reference shows when the change has been told.
  auto other = service.createWithAddress(0);
  std::atomic<bool> told{false};
  other->setCallback([&](std::uint32_t) { told = true; });
  other->setDispatchQueue(queue);
  this->subject.setReachable(false);
  EXPECT_TRUE(this->subject.spinUntil([&] { return told.load(); }));
  EXPECT_EQ(heard->get().size(), before);
  other.reset();
  queue->sync([] {});
}

REGISTER_TYPED_TEST_SUITE_P(ReachabilityChangeContract, TellsOfChangesOnTheQueueUntilItIsSilenced);

}  // namespace kva::test
