#pragma once

namespace kva {

class Request;

/// Logs outgoing requests as a framed block, at log level d only.
struct RequestLogger {
  static void log(const Request& request);
};

}  // namespace kva
