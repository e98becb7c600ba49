#pragma once

#include <gtk/gtk.h>

#include <Kelvara/KVABidLoader.h>

#include <filesystem>
#include <functional>

#include "demo/Ads.h"
#include "demo/Journal.h"
#include "demo/Sandbox.h"

namespace demo {

/// What the autopilot plays with.
struct Stage {
  Journal& journal;
  Ads& ads;
  const Sandbox& sandbox;
  GtkWindow* window;
  std::function<void(kva::KVABidType)> show;  ///< on the main thread
  std::filesystem::path output;               ///< where the pictures go
};

/// Plays both kinds of ad through with real input, saves a picture of each stage, and compares what
/// the host heard with what the server received. True only if every step succeeded and the two
/// agree. On a thread of its own, while the main thread runs its loop.
bool play(const Stage& stage);

}  // namespace demo
