#include <Kelvara/api/Reachability.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre;
using Flag = ReachabilityFlag;
using Operation = headless::HeadlessReachability::Operation;

template <class... Flags>
constexpr std::uint32_t bits(Flags... flags) {
  return (0u | ... | static_cast<std::uint32_t>(flags));
}

TEST(ReachabilityFlags, MapToALinkAndADescription) {
  struct Case {
    std::uint32_t flags;
    Connection connection;
    const char* description;
  };
  const Case cases[] = {
      {0, Connection::unavailable, "-- -------"},
      {bits(Flag::isWWAN), Connection::unavailable, "W- -------"},
      {bits(Flag::reachable), Connection::wifi, "-R -------"},
      {bits(Flag::reachable, Flag::isLocalAddress, Flag::isDirect), Connection::wifi, "-R -----ld"},
      {bits(Flag::reachable, Flag::connectionRequired), Connection::unavailable, "-R c------"},
      {bits(Flag::reachable, Flag::connectionRequired, Flag::connectionOnDemand), Connection::wifi,
       "-R c---D--"},
      {bits(Flag::reachable, Flag::connectionRequired, Flag::connectionOnTraffic), Connection::wifi,
       "-R c--C---"},
      {bits(Flag::reachable, Flag::connectionRequired, Flag::connectionOnDemand,
            Flag::interventionRequired),
       Connection::unavailable, "-R c-i-D--"},
      {bits(Flag::reachable, Flag::isWWAN, Flag::connectionRequired, Flag::transientConnection),
       Connection::cellular, "WR ct-----"},
  };
  for (const auto& [flags, connection, description] : cases) {
    EXPECT_EQ(ReachabilityFlags(flags).connection(), connection) << description;
    EXPECT_EQ(ReachabilityFlags(flags).description(), description);
  }
  EXPECT_EQ(description(Connection::unavailable), "No Connection");
  EXPECT_EQ(description(NetworkStatus::reachableViaWWAN), "Cellular");
}

class ReachabilityTest : public testing::Test {
 protected:
  std::shared_ptr<Reachability> monitor() {
    auto made = *Reachability::create();
    made->whenReachable = [this](Reachability&) { heard.push_back("reachable"); };
    made->whenUnreachable = [this](Reachability&) { heard.push_back("unreachable"); };
    return made;
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::vector<std::string> heard;
};

TEST_F(ReachabilityTest, TellsOfEachChangeOnceOnTheMainQueue) {
  auto reachability = monitor();
  const auto observation = h.platform().notificationCenter->addObserver(
      kReachabilityChanged, reachability.get(), [&] { heard.push_back("posted"); });
  ASSERT_TRUE(reachability->startNotifier());
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_TRUE(heard.empty());
  h.time.run();
  for (const std::uint32_t flags : {bits(), bits(), bits(Flag::reachable)}) {
    h.reachability.setFlags(flags);
    h.time.run();
  }
  EXPECT_THAT(heard,
              ElementsAre("reachable", "posted", "unreachable", "posted", "reachable", "posted"));
  reachability->stopNotifier();
  h.reachability.setFlags(0);
  h.time.run();
  EXPECT_EQ(heard.size(), 6u);
}

TEST_F(ReachabilityTest, CountsACellularLinkAsNoneWhereItIsNotAllowed) {
  h.reachability.setFlags(bits(Flag::reachable, Flag::isWWAN));
  auto reachability = monitor();
  EXPECT_TRUE(reachability->isReachableViaWWAN());
  reachability->allowsCellularConnection = false;
  EXPECT_EQ(reachability->connection(), Connection::unavailable);
  ASSERT_TRUE(reachability->startNotifier());
  h.time.run();
  EXPECT_THAT(heard, ElementsAre("unreachable"));
}

TEST_F(ReachabilityTest, GivesTheSystemsErrorForEveryStepThatFails) {
  using Case = ReachabilityError::Case;
  h.reachability.fail(Operation::create, 3);
  const auto none = Reachability::createWithHostname("example.org", nullptr);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().what, Case::failedToCreateWithHostname);
  EXPECT_EQ(none.error().target, "example.org");
  EXPECT_EQ(none.error().systemError, 3);
  h.reachability.fail(Operation::create, {});

  const std::pair<Operation, Case> steps[] = {
      {Operation::setCallback, Case::unableToSetCallback},
      {Operation::setDispatchQueue, Case::unableToSetDispatchQueue},
      {Operation::flags, Case::unableToGetFlags},
  };
  for (const auto& [operation, what] : steps) {
    auto reachability = monitor();
    h.reachability.fail(operation, 9);
    const auto outcome = reachability->startNotifier();
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().what, what);
    EXPECT_EQ(outcome.error().systemError, 9);
    EXPECT_FALSE(reachability->isNotifierRunning());
    EXPECT_EQ(h.reachability.watchers(), 0);
    if (operation == Operation::flags) {
      EXPECT_EQ(reachability->connection(), Connection::unavailable);
      EXPECT_EQ(reachability->description(), "unavailable flags");
    }
    h.reachability.fail(operation, {});
  }
}

TEST_F(ReachabilityTest, IsNotKeptAliveByTheSystem) {
  auto reachability = monitor();
  ASSERT_TRUE(reachability->startNotifier());
  const std::weak_ptr<Reachability> weak = reachability;
  reachability.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(h.reachability.watchers(), 0);
  h.time.run();
  EXPECT_TRUE(heard.empty());
}

}  // namespace
}  // namespace kva
