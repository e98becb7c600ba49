#include <Kelvara/core/Completion.h>

#include <gtest/gtest.h>

#include <Kelvara/KVAErrorCodes.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/SDKHelper.h>

namespace kva {
namespace {

TEST(Completion, StopsTheProcessWhenItIsCalledTwiceOrDropped) {
  int calls = 0;
  Completion<int> once([&](int value) { calls += value; });
  Completion<int> moved(std::move(once));
  moved(1);
  EXPECT_EQ(calls, 1);
  EXPECT_DEATH(moved(1), "completion_test.*called twice");
#ifndef NDEBUG
  EXPECT_DEATH(Completion<int>([](int) {}), "completion_test.*dropped");
#endif
}

TEST(Errors, CarryTheirCodeDomainAndMessage) {
  EXPECT_EQ(SDKHelper::Error::error(KVAErrorCodes::unknown), Error("Kelvara", -1, "Error"));
  EXPECT_EQ(errorCodeFromRawValue(6), KVAErrorCodes::unassigned);
  EXPECT_FALSE(errorCodeFromRawValue(15));
  EXPECT_FALSE(errorCodeFromRawValue(-2));
}

TEST(Runtime, SaysWhatToDoWhenThereIsNone) {
  EXPECT_DEATH(Kelvara::isInitialized(), "make a kva::gtk::Host");
}

}  // namespace
}  // namespace kva
