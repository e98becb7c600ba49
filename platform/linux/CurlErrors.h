#pragma once

#include <curl/curl.h>

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// The transport error with this code: an English sentence and the remedy.
Error urlError(URLError code);

/// The error for a finished transfer `easy` that failed with `result`.
URLError urlErrorOf(CURL* easy, CURLcode result);

}  // namespace kva
