#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace demo {

/// The origin of an event. Each has its own colour in the window.
enum class Source { host, sdk, bid, ad, server };
std::string_view name(Source source);

struct Event {
  double milliseconds;  ///< since the demo began
  Source source;
  std::string name;    ///< such as "interstitialDidPresent"
  std::string detail;  ///< for the reader
};

/// All events in order, for the window, the console and the autopilot. Thread-safe.
class Journal {
 public:
  void add(Source source, std::string name, std::string detail = {});
  /// Sets the function that `add` calls, on its own thread and outside the lock. Set before the
  /// first event.
  void onEvent(std::function<void(const Event&)> added) { added_ = std::move(added); }

  std::vector<Event> events() const;
  int count(std::string_view name) const;
  /// Waits for `count` events of this name. False after `limit`.
  bool waitFor(std::string_view name, int count, std::chrono::seconds limit);

 private:
  int countLocked(std::string_view name) const;

  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  std::function<void(const Event&)> added_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

}  // namespace demo
