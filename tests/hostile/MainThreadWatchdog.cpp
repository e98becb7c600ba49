#include "hostile/MainThreadWatchdog.h"

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace kva::show {
namespace {

MainThreadWatchdog* watchdog = nullptr;

double milliseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// How often this thread has given the processor up by itself.
long waits() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

}  // namespace

/// One stay in the SDK's code, from its making to its end.
class Timing {
 public:
  explicit Timing(const std::string& what) {
    if (!watchdog || current_ || gettid() != getpid()) return;
    what_ = what;
    current_ = this;
  }
  ~Timing() {
    if (current_ != this) return;
    current_ = nullptr;
    if (!watchdog) return;
    auto& figures = watchdog->figures_[what_];
    ++figures.count;
    figures.longest = std::max(figures.longest, milliseconds(CLOCK_THREAD_CPUTIME_ID) - processor_);
    if (waits() != waits_)
      figures.longestWaiting =
          std::max(figures.longestWaiting, milliseconds(CLOCK_MONOTONIC) - clock_);
  }
  Timing(const Timing&) = delete;
  Timing& operator=(const Timing&) = delete;

  static void makesAWebView() {
    if (current_) current_->what_ = MainThreadWatchdog::kMakingAWebView;
  }

 private:
  static inline Timing* current_ = nullptr;
  std::string what_;
  double processor_ = milliseconds(CLOCK_THREAD_CPUTIME_ID), clock_ = milliseconds(CLOCK_MONOTONIC);
  long waits_ = waits();
};

MainThreadWatchdog::MainThreadWatchdog() { watchdog = this; }
MainThreadWatchdog::~MainThreadWatchdog() { watchdog = nullptr; }

void MainThreadWatchdog::time(const std::string& what, const std::function<void()>& call) {
  Timing timing(what);
  call();
}

namespace {

/// A function of the SDK's and what GLib is to call it with.
template <class Function>
struct Registered {
  Function function;
  gpointer data;
  GDestroyNotify destroy;
  std::string what;

  static void drop(gpointer registered) {
    std::unique_ptr<Registered> dropped(static_cast<Registered*>(registered));
    if (dropped->destroy) dropped->destroy(dropped->data);
  }
};

gboolean timedSource(gpointer registered) {
  const auto& source = *static_cast<Registered<GSourceFunc>*>(registered);
  Timing timing(source.what);
  return source.function(source.data);
}

gboolean timedTick(GtkWidget* widget, GdkFrameClock* clock, gpointer registered) {
  const auto& tick = *static_cast<Registered<GtkTickCallback>*>(registered);
  Timing timing(tick.what);
  return tick.function(widget, clock, tick.data);
}

void timedHandler(GClosure* closure, GValue* result, guint count, const GValue* parameters,
                  gpointer hint, gpointer) {
  Timing timing(g_signal_name(static_cast<GSignalInvocationHint*>(hint)->signal_id));
  closure->marshal(closure, result, count, parameters, hint, nullptr);  // the signal's own
}

}  // namespace
}  // namespace kva::show

// Where the linker sends the SDK's calls of the functions that these are named after.
using kva::show::Registered;

#pragma GCC visibility push(default)
extern "C" {
void __real_g_source_set_callback(GSource*, GSourceFunc, gpointer, GDestroyNotify);
guint __real_g_idle_add_full(int, GSourceFunc, gpointer, GDestroyNotify);
guint __real_gtk_widget_add_tick_callback(GtkWidget*, GtkTickCallback, gpointer, GDestroyNotify);
WebKitUserContentManager* __real_webkit_user_content_manager_new(void);

void __wrap_g_source_set_callback(GSource* source, GSourceFunc call, gpointer data,
                                  GDestroyNotify destroy) {
  const char* name = g_source_get_name(source);
  __real_g_source_set_callback(
      source, kva::show::timedSource,
      new Registered<GSourceFunc>{call, data, destroy, name ? name : "a pending call"},
      Registered<GSourceFunc>::drop);
}

guint __wrap_g_idle_add_full(int priority, GSourceFunc call, gpointer data,
                             GDestroyNotify destroy) {
  return __real_g_idle_add_full(
      priority, kva::show::timedSource,
      new Registered<GSourceFunc>{call, data, destroy, "the end of a page"},
      Registered<GSourceFunc>::drop);
}

guint __wrap_gtk_widget_add_tick_callback(GtkWidget* widget, GtkTickCallback call, gpointer data,
                                          GDestroyNotify destroy) {
  return __real_gtk_widget_add_tick_callback(
      widget, kva::show::timedTick,
      new Registered<GtkTickCallback>{call, data, destroy, "a frame of the animation"},
      Registered<GtkTickCallback>::drop);
}

gulong __wrap_g_signal_connect_data(gpointer instance, const char* signal, GCallback handler,
                                    gpointer data, GClosureNotify destroy, GConnectFlags flags) {
  GClosure* closure = g_cclosure_new(handler, data, destroy);
  g_closure_set_meta_marshal(closure, nullptr, kva::show::timedHandler);
  return g_signal_connect_closure(instance, signal, closure, flags & G_CONNECT_AFTER);
}

WebKitUserContentManager* __wrap_webkit_user_content_manager_new(void) {
  kva::show::Timing::makesAWebView();
  return __real_webkit_user_content_manager_new();
}
}
#pragma GCC visibility pop
