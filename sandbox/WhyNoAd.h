#pragma once

#include <string>

#include "sandbox/State.h"

namespace kva::sandbox {

/// Returns a sentence with the reason why a request for a bid or an ad led to no ad, and the
/// remedy. Empty when it led to an ad, and for other endpoints.
std::string whyNoAd(const Exchange& exchange);

}  // namespace kva::sandbox
