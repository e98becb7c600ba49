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

/// The installation's identity at the server, and the server's clock. Any thread.
class AnalyticsManager {
 public:
  static AnalyticsManager& shared();

  /// Takes up what an earlier launch has stored, and the user record of this moment, which then
  /// stands for the whole run: a device value that changes reaches the server at the next launch.
  AnalyticsManager();
  /// Cancels what still waits for another process's registration, on the session's thread.
  ~AnalyticsManager();

  /// Registers the user unless that has been done, in this process or in another, in which case
  /// `completion` runs at once, with no error. Otherwise it runs on the session's thread. A call
  /// during a registration sends nothing and completes with the answer to that one. While another
  /// process registers, this one waits for its user; if that process fails or dies, this one
  /// registers.
  void register_(Completion<std::optional<Error>> completion);
  /// Sends the record of a registered user if it differs from the last one that was accepted.
  void updateIfNeeded();
  /// Drops the user, whom the server does not know, and registers again at once, unless another
  /// process has done so.
  void logout();

  /// Sets this device's clock against the server's `serverTime`, milliseconds since 1970. A
  /// difference beyond 64 bits is fatal.
  void setDeltaTime(std::int64_t serverTime);
  /// The time at the server, milliseconds since 1970. A sum beyond 64 bits is fatal.
  std::int64_t serverTime() const;

  bool isRegistered() const;
  std::optional<std::string> userId() const;
  const User& defaultUser() const { return defaultUser_; }

 private:
  struct State {
    std::optional<std::string> userId;
    /// Of the registration that is under way; empty when there is none.
    std::vector<Completion<std::optional<Error>>> registrations;
    Timer nextAttempt;           ///< while another process registers
    std::int64_t deltaTime = 0;  ///< server clock minus device clock, milliseconds
  };
  void attemptRegistration(int attempt);
  void sendRegistration(UserDefaults::Claim claim);
  bool adoptStoredUser();
  void setUserId(std::string userId);
  User userToSend() const;
  void accept(const std::string& userId);
  void completeRegistrations(const std::optional<Error>& error);

  const User defaultUser_;
  Guarded<State> state_;
};

}  // namespace kva
