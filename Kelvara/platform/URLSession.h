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
  networkConnectionLost = 1005,  ///< reset, or closed before the whole answer had come
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
  /// Seconds without an answer, or in which less than 100 bytes a second come.
  double timeout = 60;
};

/// Runs HTTP requests for the SDK. One instance serves the whole process.
/// Thread-safe: send() may be called from any thread, its own included.
class URLSession {
 public:
  /// What came of a request. A whole HTTP answer of any status has `data` (perhaps empty) and no
  /// `error`; a failed one has `error`, and no data.
  struct Outcome {
    std::optional<Bytes> data;
    std::optional<Error> error;  ///< domain "KVAURLErrorDomain", codes of `URLError`
  };
  using Done = std::move_only_function<void(Outcome)>;

  virtual ~URLSession() = default;

  /// Sends `request` and calls `done` exactly once, on the session's own thread, also when the
  /// request times out or the session is invalidated (cancelled). Calls of `done` never overlap.
  /// Redirects and compressed answers are followed and undone as a browser would.
  virtual void send(URLRequest request, Done done) = 0;

  /// Cancels what is in flight, and whatever is sent from now on; returns when every `done` has
  /// run and the session's thread, its timers included, is still. Not from the session's thread.
  virtual void invalidate() = 0;
};

}  // namespace kva
