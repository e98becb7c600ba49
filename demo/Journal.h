#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace demo {

/// Who an event comes from; each has its colour in the window.
enum class Source { host, sdk, bid, ad, server };
std::string_view name(Source source);

struct Event {
  double milliseconds;  ///< since the demo began
  Source source;
  std::string name;    ///< such as "interstitialDidPresent"
  std::string detail;  ///< for people
};

/// What has happened, in order, for the window, the console and the autopilot. Thread-safe.
class Journal {
 public:
  void add(Source source, std::string name, std::string detail = {});
  /// Called on the thread that adds, outside any lock. Set before the first event.
  void onEvent(std::function<void(const Event&)> heard) { heard_ = std::move(heard); }

  std::vector<Event> events() const;
  int count(std::string_view name) const;
  /// False when there are not so many events of this name within the limit.
  bool waitFor(std::string_view name, int count, std::chrono::seconds limit);

 private:
  int countLocked(std::string_view name) const;

  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  std::function<void(const Event&)> heard_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

}  // namespace demo
