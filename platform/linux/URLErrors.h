#pragma once

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// The transport error with this code: an English sentence and the remedy.
Error urlError(URLError code);

}  // namespace kva
