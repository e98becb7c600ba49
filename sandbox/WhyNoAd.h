#pragma once

#include <string>

#include "sandbox/State.h"

namespace kva::sandbox {

/// Says in a sentence why a request for a bid or an ad has led to no ad, and what to do. Empty
/// when it has led to one, and for other endpoints.
std::string whyNoAd(const Exchange& exchange);

}  // namespace kva::sandbox
