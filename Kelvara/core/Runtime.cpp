#include <Kelvara/core/Runtime.h>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/core/Wiring.h>

namespace kva {
namespace {

std::atomic<Runtime*> currentRuntime{nullptr};

struct Slot {
  std::once_flag made;
  std::shared_ptr<void> value;
};

}  // namespace

struct Runtime::Slots {
  Guarded<std::unordered_map<std::type_index, std::shared_ptr<Slot>>> byType;
  Guarded<std::vector<std::shared_ptr<Slot>>> inOrderOfMaking;
};

Runtime::Runtime(Platform platform)
    : platform_(std::move(platform)), slots_(std::make_unique<Slots>()) {
  Runtime* none = nullptr;
  if (!currentRuntime.compare_exchange_strong(none, this))
    fatal("there is a runtime already; destroy the other kva::gtk::Host first");
  wireManagers(*this);
}

Runtime::~Runtime() {
  platform_.urlSession->invalidate();
  auto slots = slots_->inOrderOfMaking.with([](auto& all) { return std::exchange(all, {}); });
  while (!slots.empty()) {
    slots.back()->value.reset();
    slots.pop_back();
  }
  currentRuntime.store(nullptr);
}

Runtime& Runtime::current() {
  if (Runtime* runtime = currentRuntime.load()) return *runtime;
  fatal(
      "the SDK has no platform; make a kva::gtk::Host (<Kelvara/KelvaraGtk.h>) on the main "
      "thread before the first call, and keep it as long as you use the SDK");
}

void* Runtime::slot(std::type_index type, const std::function<std::shared_ptr<void>()>& make) {
  std::shared_ptr<Slot> slot = slots_->byType.with([&](auto& byType) {
    auto& found = byType[type];
    if (!found) found = std::make_shared<Slot>();
    return found;
  });
  // Outside the lock: the constructor of a manager may request others.
  std::call_once(slot->made, [&] {
    slot->value = make();
    slots_->inOrderOfMaking.with([&](auto& all) { all.push_back(slot); });
  });
  if (!slot->value)
    fatal(std::string(type.name()) + " was requested after the runtime had destroyed it");
  return slot->value.get();
}

}  // namespace kva
