#pragma once

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <Kelvara/platform/Clock.h>

namespace kva::test {

/// The process's time zone, put back at the end.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& name) {
    if (const char* before = std::getenv("TZ")) before_ = before;
    set(name);
  }
  ~ScopedTimeZone() { set(before_); }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  static void set(const std::optional<std::string>& name) {
    name ? setenv("TZ", name->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  std::optional<std::string> before_;
};

/// `Subject` has `Clock& clock();` and is made after the time zone is set.
template <class Subject>
class ClockContract : public testing::Test {
 protected:
  static double utc(int year, int month, int day, int hour, int minute = 0) {
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    return static_cast<double>(timegm(&date));
  }
};
TYPED_TEST_SUITE_P(ClockContract);

TYPED_TEST_P(ClockContract, AddsDaysOfTheCalendarAndHoursOfTheClock) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin"))
    GTEST_SKIP() << "this machine has no time zone data";
  const ScopedTimeZone zone("Europe/Berlin");
  TypeParam subject;
  const Clock& clock = subject.clock();
  const struct {
    const char* what;
    double from;
    int days;
    double to;
  } cases[] = {
      {"into summer time", this->utc(2026, 3, 28, 11), 2, this->utc(2026, 3, 30, 10)},
      {"back out of it", this->utc(2026, 3, 30, 10), -2, this->utc(2026, 3, 28, 11)},
      {"into winter time", this->utc(2026, 10, 24, 10), 2, this->utc(2026, 10, 26, 11)},
      {"an ordinary day", this->utc(2026, 6, 1, 0, 30), 1, this->utc(2026, 6, 2, 0, 30)},
      {"no day", this->utc(2026, 3, 29, 1, 30), 0, this->utc(2026, 3, 29, 1, 30)},
      {"a leap day", this->utc(2028, 2, 28, 12), 1, this->utc(2028, 2, 29, 12)},
      {"over the year", this->utc(2026, 12, 30, 12), 3, this->utc(2027, 1, 2, 12)},
  };
  for (const auto& one : cases)
    EXPECT_DOUBLE_EQ(clock.addingDays(one.from, one.days), one.to) << one.what;
  const double fraction = this->utc(2026, 3, 28, 11) + 0.625;
  EXPECT_NEAR(clock.addingDays(fraction, 2), this->utc(2026, 3, 30, 10) + 0.625, 1e-5);
  EXPECT_DOUBLE_EQ(clock.addingHours(fraction, 48), fraction + 48 * 3600);
  EXPECT_DOUBLE_EQ(clock.addingHours(fraction, -1), fraction - 3600);
}

TYPED_TEST_P(ClockContract, InUniversalTimeEveryDayHas24Hours) {
  const ScopedTimeZone zone("UTC");
  TypeParam subject;
  const double from = this->utc(2026, 3, 28, 11);
  EXPECT_DOUBLE_EQ(subject.clock().addingDays(from, 2), from + 2 * 86'400);
}

TYPED_TEST_P(ClockContract, TellsAPlausibleTime) {
  TypeParam subject;
  const double first = subject.clock().now();
  EXPECT_GT(first, this->utc(2025, 1, 1, 0));
  EXPECT_GE(subject.clock().now(), first);
}

REGISTER_TYPED_TEST_SUITE_P(ClockContract, AddsDaysOfTheCalendarAndHoursOfTheClock,
                            InUniversalTimeEveryDayHas24Hours, TellsAPlausibleTime);

}  // namespace kva::test
