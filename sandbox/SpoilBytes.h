#pragma once

#include <optional>
#include <string>

#include "sandbox/HttpServer.h"
#include "sandbox/Scenario.h"

namespace kva::sandbox {

/// Whether a behaviour changes the bytes of the answer, not its content.
bool spoilsBytes(Behaviour behaviour);

/// Changes `answer`, header included, as a behaviour for which spoilsBytes() holds. Returns how the
/// connection ends after it; nothing: it serves the next request.
std::optional<Connection::Ending> spoilBytes(Behaviour behaviour, std::string& answer);

}  // namespace kva::sandbox
