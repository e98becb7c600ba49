#pragma once

#include <optional>

#include <Kelvara/Export.h>

namespace kva {

/// The codes of errors with the domain "Kelvara".
enum class KVAErrorCodes : int {
  unknown = -1,
  adNotReady = 0,            ///< shown before it was loaded
  adDataNotAvailable = 1,    ///< the server's reply has no ad
  sdkNotInitialized = 2,     ///< start-up has not finished
  invalidAdUnit = 3,         ///< an ad unit is a UUID
  noInternetConnection = 4,  ///< retry when the network is back
  noActivePlan = 5,          ///< no plan to bid with, or every plan is capped
  unassigned = 6,            ///< reserved
  invalidBidResponse = 7,
  requestTooSoon = 8,          ///< the back-off after a no-fill has not ended
  bidResponseAlreadyUsed = 9,  ///< one bid loads one ad
  noMraidFile = 10,            ///< no KelvaraResources.bundle: see `gtk::HostOptions::mainBundle`
  noTemplate = 11,
  invalidHtmlData = 12,
  adAlreadyShown = 13,  ///< also: there is no connection or no window when the ad is shown
  invalidAppId = 14,    ///< an application id is a UUID
};

/// The enumerator with this raw value (-1 to 14), or nothing.
KVA_EXPORT std::optional<KVAErrorCodes> errorCodeFromRawValue(int rawValue);

}  // namespace kva
