#include "demo/Journal.h"

#include <algorithm>
#include <utility>

namespace demo {

std::string_view name(Source source) {
  switch (source) {
    case Source::host:
      return "host";
    case Source::sdk:
      return "sdk";
    case Source::bid:
      return "bid";
    case Source::ad:
      return "ad";
    case Source::server:
      return "server";
  }
  return "";
}

void Journal::add(Source source, std::string name, std::string detail) {
  const double milliseconds =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began_).count();
  Event event{milliseconds, source, std::move(name), std::move(detail)};
  {
    std::scoped_lock lock(mutex_);
    events_.push_back(event);
  }
  changed_.notify_all();
  if (added_) added_(event);
}

std::vector<Event> Journal::events() const {
  std::scoped_lock lock(mutex_);
  return events_;
}

int Journal::count(std::string_view name) const {
  std::scoped_lock lock(mutex_);
  return countLocked(name);
}

bool Journal::waitFor(std::string_view name, int count, std::chrono::seconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return countLocked(name) >= count; });
}

int Journal::countLocked(std::string_view name) const {
  return static_cast<int>(std::ranges::count(events_, name, &Event::name));
}

}  // namespace demo
