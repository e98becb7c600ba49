#pragma once

#include <cstdint>

namespace kva {

/// The device's clocks and calendar. Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Seconds since 1970-01-01 00:00:00 UTC.
  virtual double now() const = 0;
  /// Seconds since a fixed moment before the process began, including the time that the machine
  /// sleeps. Never decreases, also when the wall clock is changed.
  virtual double monotonicNow() const = 0;
  /// The same time of day `days` calendar days later (earlier if negative) in the device's time
  /// zone. A day has 24 hours, except at a daylight-saving change. Both times in seconds since
  /// 1970.
  virtual double addingDays(double time, int days) const = 0;
  /// `hours` hours of elapsed time later. Both times in seconds since 1970.
  virtual double addingHours(double time, int hours) const = 0;
};

}  // namespace kva
