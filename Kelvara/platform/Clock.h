#pragma once

#include <cstdint>

namespace kva {

/// The device's clocks and calendar. Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Seconds since 1970-01-01 00:00:00 UTC.
  virtual double now() const = 0;
  /// Seconds since some moment before the process began, the machine's sleep included. Never goes
  /// back, whatever happens to the wall clock.
  virtual double monotonicNow() const = 0;
  /// The same time of day so many calendar days later (earlier when negative) in the device's time
  /// zone: 24 hours but for a daylight-saving change. Seconds since 1970 in and out.
  virtual double addingDays(double time, int days) const = 0;
  /// So many hours of elapsed time later.
  virtual double addingHours(double time, int hours) const = 0;
};

}  // namespace kva
