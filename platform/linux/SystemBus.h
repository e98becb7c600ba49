#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/GlibSupport.h"

// Everything in this file is used on the main thread.
namespace kva {

/// The system's message bus, if there is one. The SDK opens a private connection, because the
/// shared one ends the process when the bus goes away. It connects in the background; this value
/// may be destroyed before.
class SystemBus {
 public:
  SystemBus();
  /// Calls `use` once, from the main loop, if there is a bus. Call it before the loop's next
  /// iteration.
  void whenConnected(std::function<void(GDBusConnection*)> use);

 private:
  using Waiting = std::vector<std::function<void(GDBusConnection*)>>;
  std::shared_ptr<Waiting> waiting_ = std::make_shared<Waiting>();
};

/// One interface of one object of a system service. Follows the service when it starts, changes or
/// exits, and never starts it.
class BusObject {
 public:
  /// The texts must be static.
  struct Target {
    const char* service;
    const char* path;
    const char* interface;
  };
  /// `changed` is called when the service starts or exits, and when a property changes.
  BusObject(SystemBus& bus, Target target, std::function<void()> changed);

  /// Whether the service runs.
  bool isPresent() const;
  /// A string property; nothing if the service does not run or has no such property.
  std::optional<std::string> text(const char* property) const;
  /// The same for a property of type uint32.
  std::optional<std::uint32_t> number(const char* property) const;
  /// Calls a method without arguments and ignores the reply.
  void call(const char* method);

 private:
  GVariantPtr property(const char* name, const GVariantType* type) const;

  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kva
