#pragma once

#include <functional>
#include <map>
#include <string>

namespace kva::show {

/// Times all that the SDK does on the main thread: whatever GLib calls in the SDK's own code
/// (signal handlers, sources, frame ticks; the linker hands their registrations over to us), and
/// the host's calls into it. Of nested ones the outermost counts, with all that it calls in GTK and
/// WebKit. The layout and drawing of GTK and the work of WebKit itself are theirs, not counted.
/// Time is the thread's processor time, which a busy machine does not stretch. One at a time.
class MainThreadWatchdog {
 public:
  struct Figures {
    int count = 0;
    double longest = 0;         ///< milliseconds of processor time
    double longestWaiting = 0;  ///< milliseconds on the clock, of those that waited for something
  };

  MainThreadWatchdog();
  ~MainThreadWatchdog();
  MainThreadWatchdog(const MainThreadWatchdog&) = delete;
  MainThreadWatchdog& operator=(const MainThreadWatchdog&) = delete;

  /// Times a call of the host's.
  void time(const std::string& what, const std::function<void()>& call);
  /// By what was done; the making of a web view stands by itself, as `kMakingAWebView`.
  const std::map<std::string, Figures>& figures() const { return figures_; }

  static constexpr const char* kMakingAWebView = "(making a web view)";

 private:
  friend class Timing;
  std::map<std::string, Figures> figures_;
};

}  // namespace kva::show
