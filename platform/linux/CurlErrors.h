#pragma once

#include <curl/curl.h>

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// A transport error with an English sentence for its code.
Error urlError(URLError code);

/// The error for a finished transfer `easy` that failed with `result`.
URLError urlErrorOf(CURL* easy, CURLcode result);

}  // namespace kva
