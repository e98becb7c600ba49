#pragma once

#include <optional>

#include <Kelvara/user/User.h>

// This installation's user record. Any thread.
namespace kva {

/// The record as the device, the application and the user's privacy are now.
User currentUser();

/// Stores the record as the last one that the server accepted.
void save(const User& user);
/// The record that was saved last; nothing when there is none or it cannot be read.
std::optional<User> lastUploadedUser();

}  // namespace kva
