#include <platform/headless/Reachability.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <platform/headless/Queues.h>

namespace kva::headless {

struct HeadlessReachability::Watch {
  struct Registered {
    std::function<void(std::uint32_t)> changed;
    std::shared_ptr<SerialQueue> queue;
  };
  Guarded<Registered> registered;
};

struct HeadlessReachability::State {
  struct All {
    std::uint32_t flags = kReachable;
    std::map<Operation, std::int32_t> failures;
    std::int32_t lastError = 0;
    std::vector<std::weak_ptr<Watch>> watches;

    std::optional<std::int32_t> failure(Operation operation) const {
      const auto found = failures.find(operation);
      if (found == failures.end()) return std::nullopt;
      return found->second;
    }
  };
  Guarded<All> all;
};

class HeadlessReachability::Reference final : public ReachabilityReference {
 public:
  Reference(std::shared_ptr<State> state, std::shared_ptr<Watch> watch)
      : state_(std::move(state)), watch_(std::move(watch)) {}

  ~Reference() override {
    watch_->registered.with([](auto& now) { return std::exchange(now, {}); });
  }

  std::optional<std::uint32_t> flags() override {
    if (!succeeds(Operation::flags)) return std::nullopt;
    return state_->all.with([](const auto& all) { return all.flags; });
  }

  bool setCallback(std::function<void(std::uint32_t)> changed) override {
    if (changed && !succeeds(Operation::setCallback)) return false;
    watch_->registered.with([&](auto& now) { std::swap(now.changed, changed); });
    return true;
  }

  bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
    if (queue && !succeeds(Operation::setDispatchQueue)) return false;
    watch_->registered.with([&](auto& now) { std::swap(now.queue, queue); });
    return true;
  }

  std::int32_t lastError() const override { return lastError_.get(); }

 private:
  bool succeeds(Operation operation) {
    const auto error = state_->all.with([&](const auto& all) { return all.failure(operation); });
    if (error) lastError_.set(*error);
    return !error;
  }

  std::shared_ptr<State> state_;
  std::shared_ptr<Watch> watch_;
  Guarded<std::int32_t> lastError_;
};

HeadlessReachability::HeadlessReachability(VirtualTime& time)
    : time_(time), state_(std::make_shared<State>()) {}

void HeadlessReachability::setFlags(std::uint32_t flags) {
  auto watches = state_->all.with([&](auto& all) {
    all.flags = flags;
    return all.watches;
  });
  for (const auto& weak : watches) {
    auto watch = weak.lock();
    if (!watch) continue;
    auto registered = watch->registered.get();
    if (!registered.changed || !registered.queue) continue;
    registered.queue->async([weak, flags] {
      auto alive = weak.lock();
      if (!alive) return;
      if (auto changed = alive->registered.get().changed) changed(flags);
    });
  }
}

void HeadlessReachability::fail(Operation operation, std::optional<std::int32_t> systemError) {
  state_->all.with([&](auto& all) {
    all.failures.erase(operation);
    if (systemError) all.failures.emplace(operation, *systemError);
  });
}

int HeadlessReachability::watchers() const {
  return static_cast<int>(std::ranges::count_if(
      state_->all.with([](const auto& all) { return all.watches; }), [](const auto& weak) {
        auto watch = weak.lock();
        if (!watch) return false;
        const auto registered = watch->registered.get();
        return registered.changed && registered.queue;
      }));
}

std::unique_ptr<ReachabilityReference> HeadlessReachability::create(
    std::optional<std::int32_t> error) {
  auto watch = std::make_shared<Watch>();
  const bool made = state_->all.with([&](auto& all) {
    if (!error) error = all.failure(Operation::create);
    if (error) {
      all.lastError = *error;
      return false;
    }
    std::erase_if(all.watches, [](const auto& weak) { return weak.expired(); });
    all.watches.push_back(watch);
    return true;
  });
  if (!made) return nullptr;
  return std::make_unique<Reference>(state_, std::move(watch));
}

std::unique_ptr<ReachabilityReference> HeadlessReachability::createWithAddress(std::uint32_t) {
  return create({});
}

std::unique_ptr<ReachabilityReference> HeadlessReachability::createWithName(
    const std::string& hostname) {
  return create(hostname.empty() ? std::optional(EINVAL) : std::nullopt);
}

std::int32_t HeadlessReachability::lastError() const {
  return state_->all.with([](const auto& all) { return all.lastError; });
}

std::shared_ptr<SerialQueue> HeadlessReachability::makeSerialQueue(const std::string&) {
  return std::make_shared<HeadlessSerialQueue>(time_);
}

}  // namespace kva::headless
