// How long the SDK holds the host's main thread while an interstitial and a rewarded video are
// shown. Standard error has a line per kind of call.
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <future>
#include <iomanip>
#include <iostream>
#include <map>

#include <Kelvara/Kelvara.h>

#include "bench/Row.h"
#include "show/ShowTest.h"

namespace kva::show {
namespace {

constexpr double kLongestCall = 2;    // milliseconds of processor time
constexpr double kLongestWait = 100;  // milliseconds on the clock

struct Figures {
  int count = 0;
  double longest = 0;         ///< milliseconds of processor time
  double longestWaiting = 0;  ///< milliseconds on the clock, of the calls that blocked
};
/// By the name of the call, during a measurement. The creation of a web view has its own row.
std::map<std::string, Figures>* figures = nullptr;
constexpr const char* kCreatingAWebView = "(creating a web view)";

double milliseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// How often this thread has blocked.
long waits() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

/// Times one call into the SDK's code, from construction to destruction. Such calls are the ones
/// that GLib makes (signal handlers, sources, frame ticks; the linker redirects their registration
/// to this file) and those of the host. Of nested calls only the outermost counts, including the
/// GTK and WebKit functions that it calls. The layout, drawing and loading that GTK and WebKit
/// start by themselves do not count. Time is the thread's processor time, which does not grow when
/// the machine is busy.
class Timing {
 public:
  explicit Timing(const char* what) {
    if (!figures || current_ || gettid() != getpid()) return;
    what_ = what;
    current_ = this;
  }
  ~Timing() {
    if (current_ != this) return;
    current_ = nullptr;
    if (!figures) return;
    auto& mine = (*figures)[what_];
    ++mine.count;
    mine.longest = std::max(mine.longest, milliseconds(CLOCK_THREAD_CPUTIME_ID) - processor_);
    if (waits() != waits_)
      mine.longestWaiting = std::max(mine.longestWaiting, milliseconds(CLOCK_MONOTONIC) - clock_);
  }
  Timing(const Timing&) = delete;
  Timing& operator=(const Timing&) = delete;

  static void createsAWebView() {
    if (current_) current_->what_ = kCreatingAWebView;
  }

 private:
  static inline Timing* current_ = nullptr;
  std::string what_;
  double processor_ = milliseconds(CLOCK_THREAD_CPUTIME_ID), clock_ = milliseconds(CLOCK_MONOTONIC);
  long waits_ = waits();
};

/// A function of the SDK that GLib calls, and its arguments.
template <class Function>
struct Registered {
  Function function;
  gpointer data;
  GDestroyNotify destroy;
  const char* what;

  static void drop(gpointer registered) {
    std::unique_ptr<Registered> dropped(static_cast<Registered*>(registered));
    if (dropped->destroy) dropped->destroy(dropped->data);
  }
  template <class... Args>
  static gboolean call(Args... args, gpointer registered) {
    const auto& self = *static_cast<Registered*>(registered);
    Timing timing(self.what);
    return self.function(args..., self.data);
  }
};
using Source = Registered<GSourceFunc>;
using Tick = Registered<GtkTickCallback>;

void timedHandler(GClosure* closure, GValue* result, guint count, const GValue* parameters,
                  gpointer hint, gpointer) {
  Timing timing(g_signal_name(static_cast<GSignalInvocationHint*>(hint)->signal_id));
  closure->marshal(closure, result, count, parameters, hint, nullptr);
}

}  // namespace

// The linker redirects the SDK's calls of g_idle_add_full and the others to these.
#pragma GCC visibility push(default)
extern "C" {
void __real_g_source_set_callback(GSource*, GSourceFunc, gpointer, GDestroyNotify);
guint __real_g_idle_add_full(int, GSourceFunc, gpointer, GDestroyNotify);
guint __real_gtk_widget_add_tick_callback(GtkWidget*, GtkTickCallback, gpointer, GDestroyNotify);
WebKitUserContentManager* __real_webkit_user_content_manager_new(void);

void __wrap_g_source_set_callback(GSource* source, GSourceFunc call, gpointer data,
                                  GDestroyNotify destroy) {
  const char* name = g_source_get_name(source);
  __real_g_source_set_callback(source, Source::call<>,
                               new Source{call, data, destroy, name ? name : "a pending call"},
                               Source::drop);
}
guint __wrap_g_idle_add_full(int priority, GSourceFunc call, gpointer data,
                             GDestroyNotify destroy) {
  return __real_g_idle_add_full(priority, Source::call<>,
                                new Source{call, data, destroy, "the end of a page"}, Source::drop);
}
guint __wrap_gtk_widget_add_tick_callback(GtkWidget* widget, GtkTickCallback call, gpointer data,
                                          GDestroyNotify destroy) {
  return __real_gtk_widget_add_tick_callback(
      widget, Tick::call<GtkWidget*, GdkFrameClock*>,
      new Tick{call, data, destroy, "a frame of the animation"}, Tick::drop);
}
gulong __wrap_g_signal_connect_data(gpointer instance, const char* signal, GCallback handler,
                                    gpointer data, GClosureNotify destroy, GConnectFlags flags) {
  GClosure* closure = g_cclosure_new(handler, data, destroy);
  g_closure_set_meta_marshal(closure, nullptr, timedHandler);
  return g_signal_connect_closure(instance, signal, closure, flags & G_CONNECT_AFTER);
}
WebKitUserContentManager* __wrap_webkit_user_content_manager_new(void) {
  Timing::createsAWebView();
  return __real_webkit_user_content_manager_new();
}
}
#pragma GCC visibility pop

namespace {

class MainThread : public ShowTest {
 protected:
  // Set before the host is created, so the measurement includes its calls.
  MainThread() { figures = &measured; }
  ~MainThread() override { figures = nullptr; }

  std::map<std::string, Figures> measured;
};

TEST_F(MainThread, InTheLifeOfAnAd) {
  server.setScenario(
      "/bid/load",
      {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea.adur", .value = "1"});
  const auto timed = [](const char* what, auto call) {
    Timing timing(what);
    call();
  };
  timed("Kelvara::start",
        [] { Kelvara::start(std::string(sandbox::kApplicationId), [](auto) {}); });
  ASSERT_TRUE(spinUntil([] { return Kelvara::isInitialized(); }));
  spinFor(2);  // the pool creates its first view, and WebKit starts the view's process
  for (const auto kind : {KVABidType::interstitial, KVABidType::rewarded}) {
    const bool isVideo = kind == KVABidType::rewarded;
    const int times = isVideo ? 2 : 1;
    std::promise<std::shared_ptr<KVABidResponse>> bid;
    auto won = bid.get_future();
    timed("loadBid", [&] {
      KVABidLoader::loadBid(
          std::string(isVideo ? sandbox::kRewardedAdUnit : sandbox::kInterstitialAdUnit), kind,
          [&](auto response, auto) { bid.set_value(response); });
    });
    ASSERT_TRUE(spinUntil(
        [&] { return won.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    const auto response = won.get();
    auto ad = makeAd(kind);
    timed("loadAd", [&] { ad->loadAd(response, response->price()); });
    ASSERT_TRUE(waitFor("didReceive", times));
    timed("showAdFrom", [&] { ad->showAdFrom(viewController); });
    ASSERT_TRUE(waitFor("didPresent", times));
    spinFor(2.5);  // polls and the countdown
    clickPage();
    if (isVideo) clickTopLeading();  // sound
    ASSERT_TRUE(isVideo || waitFor("didClick"));
    spinFor(0.5);
    if (isVideo) clickTopTrailing();  // skip
    spinFor(0.5);
    clickTopTrailing();
    ASSERT_TRUE(waitFor("didDismiss", times));
  }
  spinFor(2);  // the pool creates its next view, and an upload runs

  Figures all;
  for (const auto& [what, mine] : measured) {
    std::cerr << std::setw(28) << what << std::setw(6) << mine.count << std::fixed
              << std::setprecision(2) << std::setw(9) << mine.longest << std::setw(9)
              << mine.longestWaiting << "\n";
    if (what == kCreatingAWebView) continue;
    all.longest = std::max(all.longest, mine.longest);
    all.longestWaiting = std::max(all.longestWaiting, mine.longestWaiting);
  }
  bench::printRow("longest work of the SDK on the main thread, without making a web view", "ms",
                  all.longest, std::nullopt, {.plus = kLongestCall});
  bench::printRow("longest call of the SDK on the main thread that waits", "ms", all.longestWaiting,
                  std::nullopt, {.plus = kLongestWait});
}

}  // namespace
}  // namespace kva::show
