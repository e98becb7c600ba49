#pragma once

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// A transport error with an English sentence for its code.
Error urlError(URLError code);

}  // namespace kva
