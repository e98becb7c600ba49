#pragma once

#include <functional>
#include <memory>
#include <typeindex>

#include <Kelvara/platform/Platform.h>

namespace kva {

/// Owns the ports and every manager. The only global: `X::shared()` is
/// `Runtime::current().get<X>()`, made on first use. Values that are computed once in the life of
/// a process are kept here too. A test makes a second runtime over the same user defaults to play
/// a restart of the process.
class Runtime {
 public:
  /// Installs itself as the current runtime; there is one at a time.
  explicit Runtime(Platform platform);
  /// On the main thread, never from a callback. The session answers what is still in flight
  /// (cancelled) first, then the managers go, the last made first.
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  /// Any thread. Without a runtime the process stops with a message that says what to do.
  static Runtime& current();

  const Platform& platform() const { return platform_; }

  /// The runtime's one T, made by its default constructor on the thread that first asks. Any
  /// thread. A constructor that asks for another manager makes that one first, and so outlived by
  /// it.
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
