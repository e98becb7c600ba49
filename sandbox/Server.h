#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/Expected.h"
#include "sandbox/Periods.h"
#include "sandbox/Scenario.h"
#include "sandbox/State.h"

namespace kva::sandbox {

struct Options {
  std::string listen = "127.0.0.1";  ///< numeric address or host name
  int port = 0;                      ///< 0 picks a free one
  std::filesystem::path data{};      ///< default: share/kelvara/sandbox of the executable's prefix
  std::string database = ":memory:";
  std::chrono::milliseconds clockSkew{0};  ///< added to the clock that answers carry
  Periods periods{};
  std::vector<std::pair<std::string, Scenario>> scenarios{};  ///< endpoint and scenario
  std::function<void(const Exchange&)> onExchange{};          ///< called on the connection's thread
};

/// The sandbox ad server: the nine endpoints under "/api/v1", its creatives under "/creatives", its
/// remote control under "/control", its console at "/" and the contract at "/docs". Any thread may
/// call every method; results are copies. The destructor stops the server within a second, whatever
/// clients do.
class Server {
 public:
  explicit Server(Options options = {});
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens and serves on threads of its own. An error says what failed. Call it once.
  expected<void, std::string> start();
  void stop();

  std::string origin() const;   ///< "http://127.0.0.1:8000", once started
  std::string baseURL() const;  ///< the origin with "/api/v1"
  int port() const;

  /// Replaces the scenario of "/bid/init" or another endpoint, or with "*" of all nine.
  /// False: no such endpoint.
  bool setScenario(std::string_view endpoint, Scenario scenario);
  void clearScenarios();
  void setClockSkew(std::chrono::milliseconds skew);

  /// Makes `html` the newest version of a template, announced by the next "/init".
  bool publishTemplate(std::string_view id, std::string html);

  /// The latest 5000 exchanges, oldest first; those of one endpoint alone when one is named.
  std::vector<Exchange> exchanges(std::string_view endpoint = {}) const;
  /// Waits until `enough` holds for exchanges(endpoint); false when the limit has passed.
  bool waitForExchanges(std::string_view endpoint,
                        const std::function<bool(const std::vector<Exchange>&)>& enough,
                        std::chrono::milliseconds limit) const;
  State state() const;
  /// Removes users, bids, reports, tracks, published templates, changed plans, scenarios and
  /// exchanges.
  void reset();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kva::sandbox
