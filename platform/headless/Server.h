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

/// A request as the server got it.
struct SentRequest {
  std::string url;
  std::string base;  ///< up to and with "/api/v1"
  std::string path;  ///< what follows it, such as "/init"; without a base the URL's whole path
  std::map<std::string, std::string> query;  ///< as sent, still percent-encoded
  std::string method;
  std::map<std::string, std::string> headers;
  std::optional<std::string> body;
  double time;  ///< wall clock, when it was sent

  /// The body as JSON; null when there is none or it is not JSON.
  nlohmann::json json() const;
};

/// The server behind the session: a test says what it answers. Thread-safe; handlers run in virtual
/// time, as the session's thread would run `done`.
class Server {
 public:
  using Outcome = URLSession::Outcome;
  using Handler = std::function<Outcome(const SentRequest&)>;
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  /// From now on `path` is answered so, so many seconds after a request was sent. A request whose
  /// time-out is shorter fails with `timedOut` then. Paths without an answer fail with
  /// `cannotConnectToHost`.
  void reply(const std::string& path, Handler handler, double delaySeconds = 0);
  void reply(const std::string& path, Outcome outcome, double delaySeconds = 0);
  /// A body, such as `envelope(...)`.
  void reply(const std::string& path, std::string_view body, double delaySeconds = 0);
  /// While true, every request fails with `notConnectedToInternet` when it is sent.
  void setOffline(bool offline);

  /// What was sent, in order; of one path when it is given.
  std::vector<SentRequest> requests(std::string_view path = {}) const;
  /// The last request of the path; stops the test program when there was none.
  SentRequest lastRequest(std::string_view path) const;
  int count(std::string_view path) const { return static_cast<int>(requests(path).size()); }
  void clearRequests();

  Server();

 private:
  friend class HeadlessURLSession;
  struct State;
  std::shared_ptr<State> state_;
};

/// The server's reply with this JSON text as its data.
std::string envelope(std::string_view data, std::int64_t time = 0);
/// A refusal with an error record.
std::string errorEnvelope(std::int64_t code, std::string_view message, std::int64_t time = 0);
URLSession::Outcome answer(std::string_view body);
URLSession::Outcome failure(URLError code);

/// One process's session to the server.
class HeadlessURLSession final : public URLSession {
 public:
  HeadlessURLSession(VirtualTime& time, const Server& server);
  ~HeadlessURLSession() override;
  /// Answers in virtual time; never before it returns, unless the session was invalidated.
  void send(URLRequest request, Done done) override;
  /// Answers on the calling thread.
  void invalidate() override;
  bool isInvalidated() const;

 private:
  struct Flights;
  VirtualTime& time_;
  std::shared_ptr<Server::State> server_;
  std::shared_ptr<Flights> flights_;
};

}  // namespace kva::headless
