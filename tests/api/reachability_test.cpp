#include <gmock/gmock.h>

#include <Kelvara/api/Reachability.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using enum ReachabilityFlag;
using testing::ElementsAre;

std::uint32_t bits(const std::vector<ReachabilityFlag>& flags) {
  std::uint32_t word = 0;
  for (const auto flag : flags) word |= static_cast<std::uint32_t>(flag);
  return word;
}

TEST(ReachabilityFlags, MapToALinkAndADescription) {
  const struct {
    std::vector<ReachabilityFlag> set;
    Connection connection;
    const char* description;
  } cases[] = {
      {{isWWAN}, Connection::unavailable, "W- -------"},
      {{reachable, isLocalAddress, isDirect}, Connection::wifi, "-R -----ld"},
      {{reachable, connectionRequired}, Connection::unavailable, "-R c------"},
      {{reachable, connectionRequired, connectionOnDemand}, Connection::wifi, "-R c---D--"},
      {{reachable, connectionRequired, connectionOnTraffic}, Connection::wifi, "-R c--C---"},
      {{reachable, connectionRequired, connectionOnDemand, interventionRequired},
       Connection::unavailable,
       "-R c-i-D--"},
      {{reachable, isWWAN, connectionRequired, transientConnection},
       Connection::cellular,
       "WR ct-----"},
  };
  for (const auto& [set, connection, description] : cases) {
    EXPECT_EQ(ReachabilityFlags(bits(set)).connection(), connection) << description;
    EXPECT_EQ(ReachabilityFlags(bits(set)).description(), description);
  }
  EXPECT_EQ(description(Connection::unavailable), "No Connection");
  EXPECT_EQ(description(NetworkStatus::reachableViaWWAN), "Cellular");
}

class ReachabilityTest : public testing::Test {
 protected:
  ReachabilityTest() {
    reachability->whenReachable = [this](Reachability&) { heard.push_back("reachable"); };
    reachability->whenUnreachable = [this](Reachability&) { heard.push_back("unreachable"); };
  }
  void setFlags(const std::vector<ReachabilityFlag>& flags) {
    h.reachability.setFlags(bits(flags));
    h.time.run();
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::shared_ptr<Reachability> reachability = *Reachability::create();
  std::vector<std::string> heard;
};

TEST_F(ReachabilityTest, TellsOfEachChangeOnceOnTheMainQueue) {
  const auto observation = h.platform().notificationCenter->addObserver(
      kReachabilityChanged, reachability.get(), [&] { heard.push_back("posted"); });
  ASSERT_TRUE(reachability->startNotifier());
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_TRUE(heard.empty());
  h.time.run();
  setFlags({});
  setFlags({});
  reachability->allowsCellularConnection = false;
  setFlags({reachable, isWWAN});
  EXPECT_THAT(heard,
              ElementsAre("reachable", "posted", "unreachable", "posted", "unreachable", "posted"));
  reachability->stopNotifier();
  setFlags({reachable});
  EXPECT_EQ(heard.size(), 6u);
}

TEST_F(ReachabilityTest, GivesTheSystemsErrorForEveryStepThatFails) {
  using Operation = headless::HeadlessReachability::Operation;
  using Case = ReachabilityError::Case;
  const std::pair<Operation, Case> steps[] = {
      {Operation::setCallback, Case::unableToSetCallback},
      {Operation::setDispatchQueue, Case::unableToSetDispatchQueue},
      {Operation::flags, Case::unableToGetFlags},
  };
  for (const auto& [operation, what] : steps) {
    h.reachability.fail(operation, 9);
    const auto outcome = reachability->startNotifier();
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().what, what);
    EXPECT_EQ(outcome.error().systemError, 9);
    EXPECT_FALSE(reachability->isNotifierRunning());
    EXPECT_EQ(h.reachability.watchers(), 0);
    EXPECT_EQ(reachability->description(), "unavailable flags");
    h.reachability.fail(operation, {});
  }
}

TEST_F(ReachabilityTest, IsNotKeptAliveByTheSystem) {
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
