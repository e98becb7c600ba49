#pragma once

#include <gtk/gtk.h>

#include <Kelvara/KVABidLoader.h>

#include <filesystem>
#include <functional>

#include "demo/Ads.h"
#include "demo/Journal.h"
#include "demo/Sandbox.h"

namespace demo {

/// What the autopilot uses.
struct Stage {
  Journal& journal;
  Ads& ads;
  const Sandbox& sandbox;
  GtkWindow* window;
  std::function<void(kva::KVABidType)> show;  ///< on the main thread
  std::filesystem::path output;               ///< where the pictures go
};

/// Plays both kinds of ad to the end with real input, saves a picture of each step, and compares
/// the host's callbacks with the server's reports. True if every step succeeds and both agree. Call
/// on a thread other than the main thread, which must run its main loop.
bool play(const Stage& stage);

}  // namespace demo
