#include <Kelvara/platform/NotificationCenter.h>

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include <Kelvara/base/Guarded.h>

namespace kva {
namespace {

struct Observer {
  Observer(std::string_view notification, const void* sender, std::function<void()> call)
      : name(notification), object(sender), received(std::move(call)) {}

  std::string name;
  const void* object;
  std::function<void()> received;
  std::atomic<bool> stopped{false};
};

}  // namespace

struct NotificationCenter::State {
  Guarded<std::vector<std::shared_ptr<Observer>>> observers;
};

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}
NotificationCenter::~NotificationCenter() = default;

Observation NotificationCenter::addObserver(std::string_view name, const void* object,
                                            std::function<void()> received) {
  auto observer = std::make_shared<Observer>(name, object, std::move(received));
  state_->observers.with([&](auto& all) { all.push_back(observer); });
  return Observation(
      std::shared_ptr<void>(observer.get(), [observer, state = std::weak_ptr(state_)](void*) {
        observer->stopped = true;
        if (auto alive = state.lock())
          alive->observers.with([&](auto& all) { std::erase(all, observer); });
      }));
}

void NotificationCenter::post(std::string_view name, const void* object) {
  for (const auto& observer : state_->observers.get()) {
    if (observer->name != name || (observer->object && observer->object != object)) continue;
    if (!observer->stopped) observer->received();
  }
}

}  // namespace kva
