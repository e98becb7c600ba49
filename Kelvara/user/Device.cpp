#include <Kelvara/user/Device.h>

#include <optional>

#include <Kelvara/core/Runtime.h>
#include <Kelvara/user/DeviceModel.h>

namespace kva {
namespace {

using RadioAccessTechnology = Telephony::RadioAccessTechnology;

const Platform& ports() { return Runtime::current().platform(); }

const char* generation(RadioAccessTechnology technology) {
  switch (technology) {
    case RadioAccessTechnology::gprs:
    case RadioAccessTechnology::edge:
    case RadioAccessTechnology::cdma1x:
      return "2g";
    case RadioAccessTechnology::wcdma:
    case RadioAccessTechnology::hsdpa:
    case RadioAccessTechnology::hsupa:
    case RadioAccessTechnology::cdmaEVDORev0:
    case RadioAccessTechnology::cdmaEVDORevA:
    case RadioAccessTechnology::cdmaEVDORevB:
    case RadioAccessTechnology::eHRPD:
    case RadioAccessTechnology::other:
      return "3g";
    case RadioAccessTechnology::lte:
      return "4g";
  }
  return "3g";
}

}  // namespace

// The server accepts only this platform and brand.
std::string SDKHelper::Device::platform() { return "ios"; }
std::string SDKHelper::Device::deviceBrand() { return "apple"; }
std::string SDKHelper::Device::osVersion() { return ports().device->systemVersion(); }
std::string SDKHelper::Device::deviceModel() { return DeviceModel::modelName(); }

std::string SDKHelper::Device::connectionType() {
  return generation(
      ports().telephony->currentRadioAccessTechnology().value_or(RadioAccessTechnology::other));
}

std::string SDKHelper::Device::carrierName() {
  return ports().telephony->carrierName().value_or("");
}
std::string SDKHelper::Device::country() { return ports().locale->countryCode().value_or(""); }
std::string SDKHelper::Device::language() { return ports().locale->languageCode().value_or(""); }
std::string SDKHelper::Device::timezone() {
  return ports().locale->timeZoneAbbreviation().value_or("");
}

}  // namespace kva
