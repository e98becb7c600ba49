#pragma once

#include <functional>
#include <memory>
#include <typeindex>

#include <Kelvara/platform/Platform.h>

namespace kva {

/// Owns the ports and every manager, and is the only global: `X::shared()` is
/// `Runtime::current().get<X>()`. Values that are computed once per process are kept here too. A
/// test simulates a restart of the process with a second runtime over the same user defaults.
class Runtime {
 public:
  /// Installs itself as the current runtime; there is one at a time.
  explicit Runtime(Platform platform);
  /// Call on the main thread, never from a callback. First the session answers every request in
  /// flight with a cancellation, then the managers are destroyed in the reverse order of creation.
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  /// Any thread. Fatal when there is no runtime; the message says what to do.
  static Runtime& current();

  const Platform& platform() const { return platform_; }

  /// The runtime's one T, created by its default constructor on the thread that asks first. Any
  /// thread. Managers requested in the constructor are made first and outlive it. Fatal when the
  /// end of the runtime has destroyed the T already.
  template <class T>
  T& get() {
    return *static_cast<T*>(slot(typeid(T), [] { return std::make_shared<T>(); }));
  }

 private:
  struct Slots;
  void* slot(std::type_index type, const std::function<std::shared_ptr<void>()>& make);

  Platform platform_;
  std::unique_ptr<Slots> slots_;
};

}  // namespace kva
