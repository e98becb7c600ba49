#pragma once

#include <optional>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/user/Tester.h>

namespace kva {

/// Tells whether this device is one of the application's test devices, which may use the sandbox
/// server and log in detail. Nothing is stored: each start-up decides again. Any thread.
class AdminManager {
 public:
  static AdminManager& shared();

  /// Looks for this device among the application's testers. A match stays, also when a later list
  /// has none.
  void setTesters(const std::vector<Tester>& testers);

  bool isTester() const;
  bool isSandbox() const;
  std::optional<Tester> tester() const;

 private:
  Guarded<std::optional<Tester>> tester_;
};

}  // namespace kva
