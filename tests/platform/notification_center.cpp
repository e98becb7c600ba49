#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/platform/NotificationCenter.h>

namespace kva::test {
namespace {

TEST(NotificationCenter, CallsObserversOfTheNameAndSenderInOrder) {
  NotificationCenter center;
  std::vector<std::string> heard;
  const int sender = 0, stranger = 0;
  auto note = [&](std::string who) { return [&heard, who] { heard.push_back(who); }; };
  auto any = center.addObserver("news", nullptr, note("any"));
  auto one = center.addObserver("news", &sender, note("one"));
  auto other = center.addObserver("weather", nullptr, note("other"));
  center.post("news", &sender);
  EXPECT_EQ(heard, (std::vector<std::string>{"any", "one"}));
  heard.clear();
  center.post("news", &stranger);
  center.post("new", &sender);
  EXPECT_EQ(heard, (std::vector<std::string>{"any"}));
}

TEST(NotificationCenter, ADroppedObserverIsSilentAlsoWhileNewsIsTold) {
  auto center = std::make_unique<NotificationCenter>();
  int heard = 0;
  Observation victim, self;
  auto first = center->addObserver("news", nullptr, [&] { victim.stop(); });
  victim = center->addObserver("news", nullptr, [&] { heard += 100; });
  auto held = std::make_shared<int>(1);
  self = center->addObserver("news", nullptr, [&, held] {
    self.stop();
    heard += *held;
  });
  Observation added;
  auto adds = center->addObserver("news", nullptr, [&] {
    if (heard == 1) added = center->addObserver("news", nullptr, [&] { heard += 10; });
  });
  center->post("news", nullptr);
  EXPECT_EQ(heard, 1);
  adds.stop();
  center->post("news", nullptr);
  EXPECT_EQ(heard, 11);
  center.reset();
  added.stop();  // after its centre
}

TEST(NotificationCenter, TakesManyThreads) {
  NotificationCenter center;
  std::atomic<int> heard{0};
  auto stays = center.addObserver("news", nullptr, [&] { ++heard; });
  constexpr int kRounds = 200;
  {
    std::jthread posts([&] {
      for (int i = 0; i < kRounds; ++i) center.post("news", nullptr);
    });
    std::jthread comesAndGoes([&] {
      for (int i = 0; i < kRounds; ++i) {
        auto guest = center.addObserver("news", nullptr, [] {});
        center.post("weather", nullptr);
      }
    });
  }
  EXPECT_EQ(heard, kRounds);
}

}  // namespace
}  // namespace kva::test
