#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <Kelvara/Error.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/RunLoop.h>
#include <Kelvara/platform/UserDefaults.h>
#include <Kelvara/user/User.h>

namespace kva {

/// Registers this installation at the server and follows the server's clock. Any thread.
class AnalyticsManager {
 public:
  static AnalyticsManager& shared();

  /// Reads the values that an earlier launch stored, and makes the user record. The record does not
  /// change until the next launch, which sends changed device values to the server.
  AnalyticsManager();
  /// Stores the difference between the clocks. Cancels registrations that wait for another process,
  /// on the session's thread.
  ~AnalyticsManager();

  /// Registers the user. If this or another process has done so, `completion` runs before this
  /// returns, without an error; otherwise on the session's thread. A call during a registration
  /// sends nothing and completes with the outcome of that one. While another process registers,
  /// this one waits for its user. If that process fails or ends, this one registers.
  void register_(Completion<std::optional<Error>> completion);
  /// Sends the record of a registered user if it differs from the last one that was accepted.
  void updateIfNeeded();
  /// Drops a user that the server has rejected as unknown and registers again, unless another
  /// process has done so.
  void logout();

  /// Keeps the difference between the server's clock and the device's. `serverTime` is in
  /// milliseconds since 1970. The stored difference follows at once when it is off by a second or
  /// more, otherwise when the runtime ends. Fatal if the difference exceeds 64 bits.
  void setDeltaTime(std::int64_t serverTime);
  /// The server's current time, milliseconds since 1970. Fatal if it exceeds 64 bits.
  std::int64_t serverTime() const;

  bool isRegistered() const;
  std::optional<std::string> userId() const;
  const User& defaultUser() const { return defaultUser_; }

 private:
  struct State {
    std::optional<std::string> userId;
    /// The completions of the running registration; empty if none runs.
    std::vector<Completion<std::optional<Error>>> registrations;
    Timer nextAttempt;           ///< while another process registers
    std::int64_t deltaTime = 0;  ///< server clock minus device clock, milliseconds
    std::optional<std::int64_t> storedDeltaTime;
  };
  void attemptRegistration(int attempt);
  void sendRegistration(UserDefaults::Claim claim);
  bool adoptStoredUser();
  static void storeDeltaTime(State& state);
  void setUserId(std::string userId);
  User userToSend() const;
  void accept(const std::string& userId);
  void completeRegistrations(const std::optional<Error>& error);

  const User defaultUser_;
  Guarded<State> state_;
};

}  // namespace kva
