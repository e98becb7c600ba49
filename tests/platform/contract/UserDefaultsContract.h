#pragma once

#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/platform/UserDefaults.h>

namespace kva::test {

/// `Subject` has
///   UserDefaults& store();
///   void reopen();  // the process ends and starts again
template <class Subject>
class UserDefaultsContract : public testing::Test {
 protected:
  Subject subject;
};
TYPED_TEST_SUITE_P(UserDefaultsContract);

TYPED_TEST_P(UserDefaultsContract, KeepsEveryTypeExactly) {
  using namespace std::string_literals;
  const std::vector<UserDefaults::Value> values{
      ""s,
      "text with \0 inside, \"quotes\" and ünïcode"s,
      std::string(100'000, 'x'),
      Bytes{},
      Bytes{std::byte{0}, std::byte{0xff}, std::byte{'\n'}},
      true,
      false,
      std::int64_t{0},
      std::numeric_limits<std::int64_t>::min(),
      std::numeric_limits<std::int64_t>::max(),
      0.1,
      -1.5e300,
      1700000000.123456,
      5.0,
  };
  auto keyOf = [](std::size_t i) { return "key " + std::to_string(i); };
  for (std::size_t i = 0; i < values.size(); ++i) this->subject.store().set(keyOf(i), values[i]);
  for (const bool afterRestart : {false, true}) {
    if (afterRestart) this->subject.reopen();
    for (std::size_t i = 0; i < values.size(); ++i) {
      const auto found = this->subject.store().value(keyOf(i));
      ASSERT_TRUE(found) << i << (afterRestart ? " after a restart" : "");
      EXPECT_TRUE(*found == values[i]) << i << (afterRestart ? " after a restart" : "");
    }
  }
}

TYPED_TEST_P(UserDefaultsContract, ReadsNothingAsAnotherType) {
  auto& store = this->subject.store();
  store.set("number", std::int64_t{1});
  EXPECT_FALSE(store.template get<bool>("number"));
  EXPECT_FALSE(store.template get<double>("number"));
  EXPECT_FALSE(store.template get<std::string>("number"));
  EXPECT_EQ(store.template get<std::int64_t>("number"), 1);

  store.set("text", std::string("1"));
  EXPECT_FALSE(store.template get<Bytes>("text"));
  EXPECT_FALSE(store.template get<std::int64_t>("text"));

  store.set("number", std::string("now a text"));
  EXPECT_FALSE(store.template get<std::int64_t>("number"));
  EXPECT_EQ(store.template get<std::string>("number"), "now a text");
}

TYPED_TEST_P(UserDefaultsContract, RemovesAndOverwritesForGood) {
  auto& store = this->subject.store();
  EXPECT_FALSE(store.value("never set"));
  store.remove("never set");
  store.set("gone", true);
  store.set("kept", std::string("first"));
  store.set("kept", std::string("second"));
  store.set("", std::string("under no key"));
  store.set("o'dd \"k\xc3\xa9y\"; --", std::string("odd"));
  store.remove("gone");
  this->subject.reopen();
  auto& again = this->subject.store();
  EXPECT_FALSE(again.value("gone"));
  EXPECT_EQ(again.template get<std::string>("kept"), "second");
  EXPECT_EQ(again.template get<std::string>(""), "under no key");
  EXPECT_EQ(again.template get<std::string>("o'dd \"k\xc3\xa9y\"; --"), "odd");
  EXPECT_FALSE(again.value("KEPT"));
}

TYPED_TEST_P(UserDefaultsContract, TakesManyThreads) {
  auto& store = this->subject.store();
  constexpr int kThreads = 4, kRounds = 50;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&store, thread] {
        const std::string own = "own " + std::to_string(thread);
        for (std::int64_t round = 1; round <= kRounds; ++round) {
          store.set(own, round);
          EXPECT_EQ(store.template get<std::int64_t>(own), round);
          store.set("common", round);
          EXPECT_TRUE(store.template get<std::int64_t>("common"));
        }
      });
  }
  this->subject.reopen();
  auto& again = this->subject.store();
  for (int thread = 0; thread < kThreads; ++thread)
    EXPECT_EQ(again.template get<std::int64_t>("own " + std::to_string(thread)), kRounds);
  EXPECT_EQ(again.template get<std::int64_t>("common"), kRounds);
}

REGISTER_TYPED_TEST_SUITE_P(UserDefaultsContract, KeepsEveryTypeExactly, ReadsNothingAsAnotherType,
                            RemovesAndOverwritesForGood, TakesManyThreads);

}  // namespace kva::test
