#pragma once

#include <optional>

#include <Kelvara/user/User.h>

// The user record of this installation. Any thread.
namespace kva {

/// The record with the current values of the device, the application and the user's privacy.
User currentUser();

/// Stores the record as the last one that the server accepted.
void save(const User& user);
/// The record that was saved last; absent if there is none or it is unreadable.
std::optional<User> lastUploadedUser();

}  // namespace kva
