#pragma once

#include <optional>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/user/Tester.h>

namespace kva {

/// Determines whether this device is one of the application's test devices, which may use the
/// sandbox server and debug logs. The result is not stored. Any thread.
class AdminManager {
 public:
  static AdminManager& shared();

  /// Searches the application's testers for this device. A match remains if a later list has none.
  void setTesters(const std::vector<Tester>& testers);

  bool isTester() const;
  bool isSandbox() const;
  std::optional<Tester> tester() const;

 private:
  Guarded<std::optional<Tester>> tester_;
};

}  // namespace kva
