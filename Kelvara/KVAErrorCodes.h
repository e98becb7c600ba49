#pragma once

#include <optional>

#include <Kelvara/Export.h>

namespace kva {

/// The codes of the SDK's own errors (domain "Kelvara").
enum class KVAErrorCodes : int {
  unknown = -1,
  adNotReady = 0,            ///< shown before it was loaded
  adDataNotAvailable = 1,    ///< the server's answer held no ad
  sdkNotInitialized = 2,     ///< start-up has not finished
  invalidAdUnit = 3,         ///< an ad unit is a UUID
  noInternetConnection = 4,  ///< try again when the network is back
  noActivePlan = 5,          ///< nothing to bid with, or every plan is capped
  unassigned = 6,            ///< reserved
  invalidBidResponse = 7,
  requestTooSoon = 8,          ///< the back-off after a no-fill runs
  bidResponseAlreadyUsed = 9,  ///< one bid loads one ad
  noMraidFile = 10,            ///< no KelvaraResources.bundle: see `gtk::HostOptions::mainBundle`
  noTemplate = 11,
  invalidHtmlData = 12,
  adAlreadyShown = 13,  ///< also: no connection, or no window any more, at the moment of showing
  invalidAppId = 14,    ///< an application id is a UUID
};

/// The case with this raw value, from -1 to 14; nothing for any other.
KVA_EXPORT std::optional<KVAErrorCodes> errorCodeFromRawValue(int rawValue);

}  // namespace kva
