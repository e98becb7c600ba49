#pragma once

#include <curl/curl.h>

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// A transport error with a plain English sentence for its code.
Error urlError(URLError code);

/// What libcurl's `result` for the finished transfer `easy` means.
URLError urlErrorOf(CURL* easy, CURLcode result);

}  // namespace kva
