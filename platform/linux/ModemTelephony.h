#pragma once

#include <memory>

#include <Kelvara/platform/DeviceInfo.h>

#include "platform/linux/SystemBus.h"

namespace kva {

/// What ModemManager says of the first modem that is registered with a network; nothing while it,
/// or such a modem, is not there. Made and destroyed on the main thread.
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
