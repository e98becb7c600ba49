#pragma once

#include <gtk/gtk.h>

#include <filesystem>
#include <functional>

#include "Session.h"

namespace kva::preview {

/// How a creative is played without a person.
struct Plan {
  std::filesystem::path screenshots;  ///< a folder for pictures; empty: none
  double tapX = 0.5, tapY = 0.5;      ///< where to tap, as a part of the width and the height
};

/// Plays the ad from its load until it is closed, with real input, in `window`, which must be shown
/// on an X display of its own. What goes wrong is in the session's observations. Runs the main
/// loop.
void playThrough(Session& session, const Creative& creative, GtkWindow* window,
                 Observations& observations, const Plan& plan);

}  // namespace kva::preview
