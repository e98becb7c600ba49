#pragma once

namespace kva {

class Request;

/// Dumps outgoing requests to standard output in a framed block, at log level d only.
struct RequestLogger {
  static void log(const Request& request);
};

}  // namespace kva
