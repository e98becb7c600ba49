#include "platform/linux/TimerQueue.h"

#include <cmath>
#include <map>
#include <utility>

#include <Kelvara/base/Guarded.h>

namespace kva {
namespace {

using Time = TimerQueue::Time;
using Duration = Time::duration;
using Key = std::pair<Time, std::uint64_t>;

struct Entry {
  Key key;
  Duration period{};  ///< zero: fires once
  std::move_only_function<void()> fire;
  bool cancelled = false;  ///< guarded by the queue's lock
};

struct Entries {
  std::map<Key, std::shared_ptr<Entry>> waiting;
  std::uint64_t lastSerial = 0;
  bool closed = false;
};

Duration durationOf(double seconds) {
  constexpr double tenYears = 10 * 365.25 * 86400;
  if (!std::isfinite(seconds) || seconds > tenYears) seconds = tenYears;
  return std::chrono::duration_cast<Duration>(
      std::chrono::duration<double>(std::max(seconds, 0.001)));
}

}  // namespace

struct TimerQueue::State {
  Guarded<Entries> entries;
};

TimerQueue::TimerQueue(std::function<void()> rescheduled)
    : state_(std::make_shared<State>()), rescheduled_(std::move(rescheduled)) {}

Timer TimerQueue::schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) {
  auto entry = std::make_shared<Entry>();
  const auto interval = durationOf(seconds);
  if (repeats == Repeats::yes) entry->period = interval;
  entry->fire = std::move(fire);
  const bool added = state_->entries.with([&](Entries& entries) {
    if (entries.closed) return false;
    entry->key = {std::chrono::steady_clock::now() + interval, ++entries.lastSerial};
    entries.waiting.emplace(entry->key, entry);
    return true;
  });
  if (!added) return {};
  rescheduled_();
  // The handle holds its timer weakly, so the callback is destroyed after the last firing, and
  // never under the lock.
  auto cancel = [state = std::weak_ptr(state_), entry = std::weak_ptr(entry)](void*) {
    auto queue = state.lock();
    auto timer = entry.lock();
    if (!queue || !timer) return;
    queue->entries.with([&](Entries& entries) {
      timer->cancelled = true;
      entries.waiting.erase(timer->key);
    });
  };
  return Timer(std::shared_ptr<void>(entry.get(), std::move(cancel)));
}

std::optional<Time> TimerQueue::nextDue() const {
  return state_->entries.with([](const Entries& entries) -> std::optional<Time> {
    if (entries.waiting.empty()) return std::nullopt;
    return entries.waiting.begin()->first.first;
  });
}

void TimerQueue::fireDue() {
  const auto state = state_;  // a callback may destroy the loop that owns this queue
  const auto now = std::chrono::steady_clock::now();
  for (;;) {
    auto entry = state->entries.with([&](Entries& entries) -> std::shared_ptr<Entry> {
      auto first = entries.waiting.begin();
      if (first == entries.waiting.end() || first->first.first > now) return nullptr;
      auto due = std::move(first->second);
      entries.waiting.erase(first);
      return due;
    });
    if (!entry) return;
    entry->fire();
    if (entry->period == Duration::zero()) continue;
    // Reinsert it after the callback, so that a nested loop does not fire it again.
    state->entries.with([&](Entries& entries) {
      if (entry->cancelled || entries.closed) return;
      const auto late = std::chrono::steady_clock::now() - entry->key.first;
      entry->key.first += entry->period * (late / entry->period + 1);
      entries.waiting.emplace(entry->key, entry);
    });
  }
}

void TimerQueue::close() {
  auto cancelled = state_->entries.with([](Entries& entries) {
    entries.closed = true;
    for (auto& [key, entry] : entries.waiting) entry->cancelled = true;
    return std::exchange(entries.waiting, {});
  });
}

}  // namespace kva
