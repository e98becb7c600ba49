#pragma once

#include <gtk/gtk.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// What the measured hosts share: a window, the main loop, and instruments. A host prints each
// figure as a line "name value", which bench/hosts/Hosts.h reads. Main thread only.
namespace kva::bench {

/// Milliseconds on the monotonic clock.
double now();
void report(const char* name, double value);

/// Runs the main loop until `done`, which is checked after each event. Ends the process after 30 s.
void runUntil(const std::function<bool()>& done);
/// Runs the main loop with one timer, so that the host itself causes no other wake-up.
void runFor(double seconds);

/// The pause before a host's first ad. The SDK makes its first web view in it. The bare hosts pause
/// too, because a machine that was idle is slower for a while.
inline constexpr double kStartSeconds = 3;

/// The window of a host, 800 by 600. Its content has one colour.
class HostWindow {
 public:
  /// Shows the window and waits until it has settled.
  HostWindow();
  ~HostWindow() { gtk_window_destroy(window_); }
  HostWindow(const HostWindow&) = delete;
  HostWindow& operator=(const HostWindow&) = delete;

  GtkWindow* window() const { return window_; }
  /// Covers the content.
  GtkOverlay* overlay() const { return overlay_; }

 private:
  GtkWindow* window_;
  GtkOverlay* overlay_;
};

/// Reads the pixel in the middle of a window from the X server, twice a millisecond, on a thread
/// and a connection of its own.
class PixelWatch {
 public:
  struct Shown {
    double firstPixel = 0;   ///< milliseconds until the page is part of the pixel
    double finalColour = 0;  ///< milliseconds until the pixel has the page's colour
    double darkest = 0;      ///< levels of 255 below the line from the host's to the page's colour
  };

  explicit PixelWatch(GtkWindow* window);
  ~PixelWatch() { stop(); }
  /// Stops and evaluates what was seen after `begin`. Ends the process if the page was not seen.
  Shown since(double begin);

 private:
  void watch(const std::string& display, unsigned long window, int x, int y);
  void stop();

  std::vector<std::pair<double, unsigned long>> changes_;  ///< time and pixel
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

/// The longest time between two runs of a timer that is due each millisecond.
class LoopGap {
 public:
  LoopGap() : timer_(g_timeout_add(1, tick, this)) {}
  ~LoopGap() { g_source_remove(timer_); }
  LoopGap(const LoopGap&) = delete;
  LoopGap& operator=(const LoopGap&) = delete;

  double longest() const { return longest_; }

 private:
  static gboolean tick(gpointer self);

  double last_ = now(), longest_ = 0;
  guint timer_;
};

/// Reports, for a time in which the host only runs its main loop, the processor time ("host",
/// "children", milliseconds) and the wake-ups of this process ("wakeUps", per second).
void reportCost(double seconds);
/// The memory that this process has written to and shares with no other, in MB.
double privateMemory();

}  // namespace kva::bench
