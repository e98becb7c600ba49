#include <gmock/gmock.h>

#include <Kelvara/api/Reachability.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva {
namespace {

using testing::ElementsAre;

/// The word of the flags whose letters are in `description`.
std::uint32_t bits(std::string_view description) {
  constexpr std::string_view letters = "WRctiCDld";
  constexpr int places[] = {18, 1, 2, 0, 4, 3, 5, 16, 17};
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < letters.size(); ++i)
    if (description.contains(letters[i])) word |= 1u << places[i];
  return word;
}

TEST(ReachabilityFlags, MapToALinkAndADescription) {
  const std::pair<const char*, Connection> cases[] = {
      {"W- -------", Connection::unavailable}, {"-R -----ld", Connection::wifi},
      {"-R c------", Connection::unavailable}, {"-R c---D--", Connection::wifi},
      {"-R c--C---", Connection::wifi},        {"-R c-i-D--", Connection::unavailable},
      {"WR ct-----", Connection::cellular},
  };
  for (const auto& [description, connection] : cases) {
    EXPECT_EQ(ReachabilityFlags(bits(description)).connection(), connection) << description;
    EXPECT_EQ(ReachabilityFlags(bits(description)).description(), description);
  }
  EXPECT_EQ(description(Connection::unavailable), "No Connection");
  EXPECT_EQ(description(NetworkStatus::reachableViaWWAN), "Cellular");
}

class ReachabilityTest : public testing::Test {
 protected:
  ReachabilityTest() {
    reachability->whenReachable = [this](Reachability&) { events.push_back("reachable"); };
    reachability->whenUnreachable = [this](Reachability&) { events.push_back("unreachable"); };
  }
  void setFlags(std::string_view letters) {
    h.reachability.setFlags(bits(letters));
    h.time.run();
  }

  headless::Headless h;
  Runtime runtime{h.platform()};
  std::shared_ptr<Reachability> reachability = *Reachability::create();
  std::vector<std::string> events;
};

TEST_F(ReachabilityTest, NotifiesOfEachChangeOnceOnTheMainQueueUntilStoppedOrDestroyed) {
  const auto observation = h.platform().notificationCenter->addObserver(
      kReachabilityChanged, reachability.get(), [&] { events.push_back("posted"); });
  ASSERT_TRUE(reachability->startNotifier());
  ASSERT_TRUE(reachability->startNotifier());
  EXPECT_TRUE(events.empty());
  h.time.run();
  setFlags("");
  setFlags("");
  reachability->allowsCellularConnection = false;
  setFlags("RW");
  EXPECT_THAT(events,
              ElementsAre("reachable", "posted", "unreachable", "posted", "unreachable", "posted"));
  reachability->stopNotifier();
  setFlags("R");
  ASSERT_TRUE(reachability->startNotifier());
  reachability.reset();
  EXPECT_EQ(h.reachability.watchers(), 0);
  h.time.run();
  EXPECT_EQ(events.size(), 6u);
}

TEST_F(ReachabilityTest, ReturnsTheSystemErrorOfEachStepThatFails) {
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
    EXPECT_EQ(std::pair(outcome.error().what, outcome.error().systemError), std::pair(what, 9));
    EXPECT_FALSE(reachability->isNotifierRunning());
    EXPECT_EQ(h.reachability.watchers(), 0);
    EXPECT_EQ(reachability->description(), "unavailable flags");
    h.reachability.fail(operation, {});
  }
}

}  // namespace
}  // namespace kva
