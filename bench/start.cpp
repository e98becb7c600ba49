// The time from `Kelvara::start` to its completion, right after the host has made a `Host` and
// shown its window, beside one bare GET at that moment. Needs a display.
#include <gtk/gtk.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>

#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>
#include <Kelvara/base/Fatal.h>

#include "bench/Loopback.h"
#include "bench/Row.h"

namespace kva {
namespace {

constexpr int kLives = 60;

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point began) {
  return std::chrono::duration<double, std::micro>(Clock::now() - began).count();
}

/// Iterates the main loop, so that windows and web processes come and go before the next sample.
void settle() {
  const auto until = Clock::now() + std::chrono::milliseconds(300);
  while (Clock::now() < until)
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(1000);
}

/// Runs `timed` right after a new window was shown. `timed` calls its argument when it is finished.
double besideNewWindow(const std::function<void(std::function<void()>)>& timed) {
  GtkWidget* window = gtk_window_new();
  gtk_window_set_default_size(GTK_WINDOW(window), 800, 600);
  gtk_window_set_child(GTK_WINDOW(window), gtk_label_new("A host"));
  gtk_window_present(GTK_WINDOW(window));
  std::atomic<bool> done = false;
  double taken = 0;
  const auto began = Clock::now();
  timed([&] {
    taken = microsecondsSince(began);
    done = true;
    g_main_context_wakeup(nullptr);
  });
  while (!done) g_main_context_iteration(nullptr, TRUE);
  settle();
  gtk_window_destroy(GTK_WINDOW(window));
  return taken;
}

void start(const std::function<void()>& done) {
  Kelvara::start(bench::kAppId, [done](std::optional<Error> error) {
    if (error) fatal("the start failed: " + error->localizedDescription());
    done();
  });
}

void measure(const std::filesystem::path& folder) {
  const bench::FixedServer server(bench::typicalAnswers());
  bench::Series ours, floor;
  for (int life = 0; life < kLives; ++life) {
    {
      const gtk::Host host({.bundleId = "org.kelvara.bench",
                            .userDefaults = folder / "defaults.sqlite",
                            .productionAPIBase = server.base(),
                            .networkPolicy = gtk::NetworkPolicy::assumeReachable,
                            .logLevel = gtk::LogLevel::error});
      ours.add(besideNewWindow([](auto done) { start(done); }));
    }
    settle();
    bench::BareRequest bare(server.base(), server.lastRequest("/init"));
    bench::BareThread thread;
    floor.add(besideNewWindow([&](auto done) { thread.async(bare, done); }));
  }
  constexpr double kPlus = 200;
  bench::printRow("start to completion right after Host", "us", ours, floor,
                  {.ratio = 1.1, .plus = kPlus});
}

}  // namespace
}  // namespace kva

int main() {
  gtk_init();
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-bench-start";
  std::filesystem::remove_all(folder);
  kva::measure(folder);
  std::filesystem::remove_all(folder);
}
