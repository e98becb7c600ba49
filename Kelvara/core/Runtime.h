#pragma once

#include <functional>
#include <memory>
#include <typeindex>

#include <Kelvara/platform/Platform.h>

namespace kva {

/// Owns the ports, all managers and the values that are computed once per process. It is the only
/// global: `X::shared()` is `Runtime::current().get<X>()`. A test simulates a restart of the
/// process with a new runtime over the same user defaults.
class Runtime {
 public:
  /// Becomes the current runtime. Fatal if there is one already.
  explicit Runtime(Platform platform);
  /// Main thread, not in a callback. Cancels every request in flight, then destroys the managers in
  /// the reverse order of their creation.
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  /// Any thread. Fatal if there is no runtime, with a message that says what to do.
  static Runtime& current();

  const Platform& platform() const { return platform_; }

  /// The runtime's only T. The first call creates it with its default constructor, on the calling
  /// thread. Any thread. Managers that this constructor requests are created before the T and
  /// outlive it. Fatal if the runtime's destructor has destroyed the T.
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
