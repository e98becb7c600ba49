#include "platform/linux/MainLoop.h"

#include <deque>
#include <mutex>
#include <utility>

#include <Kelvara/base/Guarded.h>

#include "platform/linux/GlibSupport.h"
#include "platform/linux/TimerQueue.h"

namespace kva {
namespace {

/// A source that is dispatched at its ready time only.
gboolean dispatchSource(GSource*, GSourceFunc callback, gpointer data) { return callback(data); }
GSourceFuncs sourceFunctions{.prepare = nullptr,
                             .check = nullptr,
                             .dispatch = dispatchSource,
                             .finalize = nullptr,
                             .closure_callback = nullptr,
                             .closure_marshal = nullptr};

}  // namespace

struct MainLoop::State : std::enable_shared_from_this<State> {
  struct Tasks {
    std::deque<Task> waiting;
    bool closed = false;
  };

  std::unique_ptr<GSource, Release<g_source_unref>> source{
      g_source_new(&sourceFunctions, sizeof(GSource))};
  Guarded<Tasks> tasks;
  TimerQueue timers{[this] { rearm(); }};
  std::mutex arming;

  void attach() {
    g_source_set_static_name(source.get(), "Kelvara");
    g_source_set_can_recurse(source.get(), TRUE);
    g_source_set_ready_time(source.get(), -1);
    g_source_set_callback(
        source.get(),
        [](gpointer data) -> gboolean {
          auto state = *static_cast<std::shared_ptr<State>*>(data);
          state->run();
          return G_SOURCE_CONTINUE;
        },
        new std::shared_ptr<State>(shared_from_this()),
        [](gpointer data) { delete static_cast<std::shared_ptr<State>*>(data); });
    g_source_attach(source.get(), nullptr);
  }

  /// Call it after each change of `tasks` or `timers`. The last call sees all changes.
  void rearm() {
    const std::scoped_lock lock(arming);
    g_source_set_ready_time(source.get(), readyTime());
  }

  /// In microseconds of GLib's monotonic time, which equals the steady clock's; -1: never.
  gint64 readyTime() const {
    if (tasks.with([](const Tasks& all) { return !all.waiting.empty(); })) return 0;
    const auto due = timers.nextDue();
    if (!due) return -1;
    return std::chrono::ceil<std::chrono::microseconds>(due->time_since_epoch()).count();
  }

  void run() {
    // Run only the tasks that wait now, so that tasks that post tasks do not starve the loop.
    auto count = tasks.with([](const Tasks& all) { return all.waiting.size(); });
    while (count-- > 0) {
      Task task = tasks.with([](Tasks& all) -> Task {
        if (all.waiting.empty()) return nullptr;
        Task first = std::move(all.waiting.front());
        all.waiting.pop_front();
        return first;
      });
      if (!task) break;
      task();  // may run a nested loop; the source is still ready, so the next tasks run there
    }
    timers.fireDue();
    rearm();
  }
};

MainLoop::MainLoop() : state_(std::make_shared<State>()), mainThread_(std::this_thread::get_id()) {
  state_->attach();
}

MainLoop::~MainLoop() {
  g_source_destroy(state_->source.get());
  state_->timers.close();
  auto dropped = std::make_unique<std::deque<Task>>();
  state_->tasks.with([&](State::Tasks& all) {
    all.closed = true;
    dropped->swap(all.waiting);
  });
  if (isMainThread() || dropped->empty()) return;
  // The captures of tasks may have to be destroyed on the main thread.
  g_idle_add_once([](gpointer data) { delete static_cast<std::deque<Task>*>(data); },
                  dropped.release());
}

void MainLoop::async(Task task) {
  state_->tasks.with([&](State::Tasks& all) {
    if (!all.closed) all.waiting.push_back(std::move(task));
  });
  state_->rearm();
}

bool MainLoop::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

Timer MainLoop::schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) {
  return state_->timers.schedule(seconds, repeats, std::move(fire));
}

}  // namespace kva
