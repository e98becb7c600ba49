#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Bytes.h>
#include <Kelvara/base/URL.h>

namespace kva {

/// The domain and codes of transport errors.
inline constexpr const char* kURLErrorDomain = "KVAURLErrorDomain";
enum class URLError : std::int64_t {
  unknown = 1,
  cancelled = 999,
  badURL = 1000,
  timedOut = 1001,
  unsupportedURL = 1002,
  cannotFindHost = 1003,
  cannotConnectToHost = 1004,
  networkConnectionLost = 1005,  ///< reset or closed before the response was complete
  dnsLookupFailed = 1006,
  httpTooManyRedirects = 1007,
  notConnectedToInternet = 1009,  ///< no route or no network
  badServerResponse = 1011,       ///< not HTTP
  cannotDecodeContentData = 1016,
  secureConnectionFailed = 1200,
  serverCertificateUntrusted = 1202,
};

struct URLRequest {
  URL url;
  std::string method = "GET";
  std::map<std::string, std::string> headers;
  std::optional<Bytes> body;
  /// Seconds. The request times out if there is no response for this long, or if it arrives at less
  /// than 100 bytes a second for this long.
  double timeout = 60;
};

/// Runs HTTP requests for the SDK. One instance serves the whole process.
/// Thread-safe: send() may be called from any thread, including the session's.
class URLSession {
 public:
  /// The outcome of a request. A complete HTTP response of any status has `data`, which may be
  /// empty, and no `error`. A failed request has `error` and no `data`.
  struct Outcome {
    std::optional<Bytes> data;
    std::optional<Error> error;  ///< domain "KVAURLErrorDomain", codes of `URLError`
  };
  using Done = std::move_only_function<void(Outcome)>;

  virtual ~URLSession() = default;

  /// Sends `request` and calls `done` exactly once, on the session's thread, also when the request
  /// times out or the session is invalidated (`URLError::cancelled`). Calls of `done` never
  /// overlap. Redirects are followed, and compressed responses decompressed, as in a browser.
  virtual void send(URLRequest request, Done done) = 0;

  /// Cancels the requests in flight and every later one. Returns when every `done` has run and the
  /// session's thread and its timers are idle. Must not be called on the session's thread.
  virtual void invalidate() = 0;
};

}  // namespace kva
