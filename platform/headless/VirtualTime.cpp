#include <platform/headless/VirtualTime.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <map>
#include <utility>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Guarded.h>

namespace kva::headless {
namespace {

// Whole nanoseconds, so that ten steps of 0.1 s make exactly 1 s.
std::int64_t toNanoseconds(double seconds) { return std::llround(seconds * 1e9); }
double toSeconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e9; }

constexpr double kBeginning = 1'767'225'600;
constexpr double kTenYears = 10 * 365.25 * 86'400;
constexpr int kEndlessLoop = 1'000'000;

double timerInterval(double seconds) {
  if (!std::isfinite(seconds)) return kTenYears;
  return std::clamp(seconds, 0.001, kTenYears);
}

}  // namespace

struct VirtualTime::Event {
  using Key = std::pair<std::int64_t, std::uint64_t>;  // due, number

  Event(std::int64_t every, Task toRun) : interval(every), task(std::move(toRun)) {}

  std::int64_t interval;  // 0: once
  Task task;
  Key key{};  // guarded by State::all
  std::atomic<bool> cancelled{false};
};

struct VirtualTime::State {
  struct All {
    std::int64_t elapsed = 0;
    double wallAtBeginning = kBeginning;
    std::uint64_t lastNumber = 0;
    std::map<Event::Key, std::shared_ptr<Event>> events;

    void add(std::int64_t due, const std::shared_ptr<Event>& event) {
      event->key = {due, ++lastNumber};
      events.emplace(event->key, event);
    }
  };
  Guarded<All> all;
};

VirtualTime::VirtualTime() : state_(std::make_shared<State>()) {}

std::shared_ptr<VirtualTime::Event> VirtualTime::add(std::int64_t nanoseconds,
                                                     std::int64_t interval, Task task) {
  auto event = std::make_shared<Event>(interval, std::move(task));
  state_->all.with([&](auto& all) { all.add(all.elapsed + nanoseconds, event); });
  return event;
}

void VirtualTime::after(double seconds, Task task) {
  add(toNanoseconds(std::max(seconds, 0.0)), 0, std::move(task));
}

Timer VirtualTime::schedule(double seconds, Repeats repeats, Task fire) {
  const auto interval = toNanoseconds(timerInterval(seconds));
  auto event = add(interval, repeats == Repeats::yes ? interval : 0, std::move(fire));
  return Timer(std::shared_ptr<void>(event.get(), [event, state = std::weak_ptr(state_)](void*) {
    event->cancelled = true;
    if (auto alive = state.lock())
      alive->all.with([&](auto& all) { all.events.erase(event->key); });
  }));
}

VirtualTime::Schedule VirtualTime::scheduleHere() {
  return [this](double seconds, Repeats repeats, Task fire) {
    return schedule(seconds, repeats, std::move(fire));
  };
}

std::size_t VirtualTime::waiting() const {
  return state_->all.with([](const auto& all) { return all.events.size(); });
}

bool VirtualTime::runNext(std::int64_t until) {
  auto event = state_->all.with([&](auto& all) -> std::shared_ptr<Event> {
    if (all.events.empty() || all.events.begin()->first.first > until) return nullptr;
    auto first = all.events.extract(all.events.begin()).mapped();
    all.elapsed = std::max(all.elapsed, first->key.first);
    return first;
  });
  if (!event) return false;
  if (event->cancelled) return true;
  if (event->interval == 0) {
    std::exchange(event->task, nullptr)();
    return true;
  }
  event->task();
  state_->all.with([&](auto& all) {
    if (event->cancelled) return;
    const auto due = event->key.first;
    const auto periods = (all.elapsed - due) / event->interval + 1;
    all.add(due + periods * event->interval, event);
  });
  return true;
}

void VirtualTime::run() { advance(0); }

void VirtualTime::advance(double seconds) {
  const auto until =
      state_->all.with([&](auto& all) { return all.elapsed + toNanoseconds(seconds); });
  for (int count = 0; runNext(until);)
    if (++count > kEndlessLoop) fatal("virtual time found no end of things to run");
  state_->all.with([&](auto& all) { all.elapsed = std::max(all.elapsed, until); });
}

bool VirtualTime::runUntil(const std::function<bool()>& done, double limit) {
  const auto until =
      state_->all.with([&](auto& all) { return all.elapsed + toNanoseconds(limit); });
  while (!done())
    if (!runNext(until)) return false;
  return true;
}

void VirtualTime::stall(double seconds) {
  state_->all.with([&](auto& all) { all.elapsed += toNanoseconds(seconds); });
}

void VirtualTime::clear() {
  // Destroying a task may add tasks or cancel timers.
  while (true) {
    auto dropped = state_->all.with([](auto& all) { return std::exchange(all.events, {}); });
    if (dropped.empty()) return;
    for (auto& [key, event] : dropped) event->cancelled = true;
  }
}

double VirtualTime::now() const {
  return state_->all.with(
      [](const auto& all) { return all.wallAtBeginning + toSeconds(all.elapsed); });
}

double VirtualTime::monotonicNow() const {
  return state_->all.with([](const auto& all) { return toSeconds(all.elapsed); });
}

void VirtualTime::setNow(double secondsSince1970) {
  state_->all.with(
      [&](auto& all) { all.wallAtBeginning = secondsSince1970 - toSeconds(all.elapsed); });
}

double VirtualTime::addingDays(double time, int days) const {
  const double whole = std::floor(time);
  const auto seconds = static_cast<std::time_t>(whole);
  std::tm local{};
  tzset();
  localtime_r(&seconds, &local);
  local.tm_mday += days;
  local.tm_isdst = -1;
  return static_cast<double>(std::mktime(&local)) + (time - whole);
}

double VirtualTime::addingHours(double time, int hours) const { return time + hours * 3600.0; }

}  // namespace kva::headless
