#pragma once

#include <memory>

#include <Kelvara/platform/DeviceInfo.h>

#include "platform/linux/SystemBus.h"

namespace kva {

/// The service of the first modem that ModemManager reports as registered with a network. Values
/// are absent while ModemManager does not run or no modem is registered. Construct and destroy it
/// on the main thread; getters are thread-safe.
class ModemTelephony final : public Telephony {
 public:
  explicit ModemTelephony(SystemBus& bus);
  ~ModemTelephony() override;

  std::optional<RadioAccessTechnology> currentRadioAccessTechnology() const override;
  std::optional<std::string> carrierName() const override;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kva
