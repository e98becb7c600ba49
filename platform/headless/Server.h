#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <Kelvara/platform/URLSession.h>
#include <platform/headless/VirtualTime.h>

namespace kva::headless {

/// A request that the server received.
struct SentRequest {
  std::string url;
  std::string base;  ///< the URL up to the end of "/api/v1"; may be empty
  std::string path;  ///< the path after the base, such as "/init"; without a base the whole path
  std::map<std::string, std::string> query;  ///< as sent, still percent-encoded
  std::string method;
  std::map<std::string, std::string> headers;
  std::optional<std::string> body;
  double time;  ///< wall clock time of `send`

  /// The body as JSON; null if there is no body or it is not JSON.
  nlohmann::json json() const;
};

/// The server behind the session. A test sets its answers. Thread-safe. Handlers run in virtual
/// time, just before the `done` of the request.
class Server {
 public:
  using Outcome = URLSession::Outcome;
  using Handler = std::function<Outcome(const SentRequest&)>;
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  /// Sets the answer for `path`, which arrives `delaySeconds` after the request was sent. A request
  /// with a shorter time-out fails with `timedOut`. Requests for other paths fail with
  /// `cannotConnectToHost`.
  void reply(const std::string& path, Handler handler, double delaySeconds = 0);
  void reply(const std::string& path, Outcome outcome, double delaySeconds = 0);
  /// Answers with a body, such as `envelope(...)`.
  void reply(const std::string& path, std::string_view body, double delaySeconds = 0);
  /// While true, every request fails with `notConnectedToInternet` when it is sent.
  void setOffline(bool offline);

  /// The requests in the order sent; only those for `path` if it is not empty.
  std::vector<SentRequest> requests(std::string_view path = {}) const;
  /// The last request for `path`; fatal if there was none.
  SentRequest lastRequest(std::string_view path) const;
  int count(std::string_view path) const { return static_cast<int>(requests(path).size()); }
  void clearRequests();

  Server();

 private:
  friend class HeadlessURLSession;
  struct State;
  std::shared_ptr<State> state_;
};

/// A successful reply with this JSON text as its data.
std::string envelope(std::string_view data, std::int64_t time = 0);
/// A reply with an error record.
std::string errorEnvelope(std::int64_t code, std::string_view message, std::int64_t time = 0);
URLSession::Outcome answer(std::string_view body);
URLSession::Outcome failure(URLError code);

/// The session of one process.
class HeadlessURLSession final : public URLSession {
 public:
  HeadlessURLSession(VirtualTime& time, const Server& server);
  ~HeadlessURLSession() override;
  /// Calls `done` in virtual time, after `send` has returned. If the session was invalidated, calls
  /// `done` before `send` returns.
  void send(URLRequest request, Done done) override;
  /// Cancels all requests and calls their `done` on the calling thread.
  void invalidate() override;
  bool isInvalidated() const;

 private:
  struct Flights;
  VirtualTime& time_;
  std::shared_ptr<Server::State> server_;
  std::shared_ptr<Flights> flights_;
};

}  // namespace kva::headless
