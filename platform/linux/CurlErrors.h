#pragma once

#include <curl/curl.h>

#include "platform/linux/URLErrors.h"

namespace kva {

/// The error for a finished transfer `easy` that failed with `result`.
URLError urlErrorOf(CURL* easy, CURLcode result);

}  // namespace kva
