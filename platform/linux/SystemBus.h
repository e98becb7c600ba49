#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/GlibSupport.h"

// Everything in this file lives on the main thread.
namespace kva {

/// The system's message bus, where there is one. A connection of the SDK's own, so that the bus
/// going away does not end the host; made in the background, also when this value is gone before.
class SystemBus {
 public:
  SystemBus();
  /// `use` runs once, in an iteration of the main loop, if there is a bus. To be asked before the
  /// loop's next iteration.
  void whenConnected(std::function<void(GDBusConnection*)> use);

 private:
  using Waiting = std::vector<std::function<void(GDBusConnection*)>>;
  std::shared_ptr<Waiting> waiting_ = std::make_shared<Waiting>();
};

/// One interface of one object of a system service, followed as the service comes, changes and
/// goes. Never starts the service.
class BusObject {
 public:
  /// Static texts.
  struct Target {
    const char* service;
    const char* path;
    const char* interface;
  };
  /// `changed` is called when the service came or went, and when a property changed.
  BusObject(SystemBus& bus, Target target, std::function<void()> changed);

  /// Whether the service is there.
  bool isPresent() const;
  /// A property that holds text; nothing when the service is not there.
  std::optional<std::string> text(const char* property) const;
  /// Likewise one that holds an unsigned number of 32 bits.
  std::optional<std::uint32_t> number(const char* property) const;
  /// Calls a method without arguments and does not wait for the answer.
  void call(const char* method);

 private:
  GVariantPtr property(const char* name, const GVariantType* type) const;

  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kva
