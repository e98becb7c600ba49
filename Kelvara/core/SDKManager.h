#pragma once

#include <memory>
#include <optional>
#include <string>

#include <Kelvara/Error.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/platform/NotificationCenter.h>
#include <Kelvara/user/Application.h>

namespace kva {

class Reachability;

/// Starts the SDK and holds its state. Any thread; getters return copies.
class SDKManager {
 public:
  static SDKManager& shared();

  SDKManager();
  ~SDKManager();

  /// See `Kelvara::start`.
  void start(const std::string& appId, Completion<std::optional<Error>> completion);
  /// Only stores the id. The next campaign report sends it.
  void setUserId(std::string userId);

  /// The id of the last start with a valid id.
  std::optional<std::string> appId() const;
  std::optional<std::string> userId() const;
  /// The server's record; absent until a start has received it.
  std::optional<Application> application() const;
  bool isInitialized() const;
  bool isReachable() const;

 private:
  enum class InitStatus { notInitialized, initializing, initialized };
  struct State {
    std::optional<std::string> appId;
    std::optional<std::string> userId;
    std::optional<Application> application;
    InitStatus initStatus = InitStatus::notInitialized;
    bool isNetworkKnown = false;
    bool isNetworkBack = false;  ///< reachable, and has changed since the last start began
  };

  void finishStart(Result<Application> result, Completion<std::optional<Error>> completion);
  void failStart(const Error& error, Completion<std::optional<Error>> completion);
  void reachabilityChanged();
  /// Starts with the last id, unless the SDK is starting or started or the network is unreachable.
  void startAgain();

  Guarded<State> state_;
  std::shared_ptr<Reachability> reachability_;
  Observation observation_;
};

}  // namespace kva
