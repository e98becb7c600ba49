// A GTK host for bench_link, built with and without Kelvara. It prints its figures as JSON:
//   link_host main   when `main` was entered, and the memory at that moment
//   link_host idle   the memory and the child processes of a window with an idle main loop; with
//                    Kelvara, also of a `Host` that is not started
#include <gtk/gtk.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#ifdef WITH_KELVARA
#include <Kelvara/KelvaraGtk.h>
#endif

namespace {

/// The process's memory in MB: `Rss`, or `Private_Dirty` for what it has written to and shares with
/// no other process.
double megabytes(const std::string& what) {
  std::ifstream file("/proc/self/smaps_rollup");
  double kilobytes = 0;
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(what)) kilobytes += std::stod(line.substr(line.find(':') + 1));
  return kilobytes / 1024;
}

std::string children() {
  std::ifstream file("/proc/self/task/" + std::to_string(getpid()) + "/children");
  std::string all;
  std::getline(file, all);
  return all;
}

void idle() {
  gtk_init();
  auto* window = gtk_window_new();
  gtk_window_present(GTK_WINDOW(window));
#ifdef WITH_KELVARA
  const auto folder =
      std::filesystem::temp_directory_path() / ("kelvara-link-" + std::to_string(getpid()));
  const std::shared_ptr<void> removed(nullptr, [&](void*) { std::filesystem::remove_all(folder); });
  kva::gtk::Host host({.userDefaults = folder / "defaults.sqlite"});
  const auto controller = host.viewController(GTK_WINDOW(window));
#endif
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < end)
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(1000);
}

}  // namespace

int main(int, char** arguments) {
  const std::chrono::duration<double> entered = std::chrono::steady_clock::now().time_since_epoch();
  const bool isIdle = std::string(arguments[1]) == "idle";
  if (isIdle) idle();
  malloc_trim(0);
  std::puts(nlohmann::json{{"entered", entered.count()},
                           {"rss", megabytes("Rss")},
                           {"private", megabytes("Private_Dirty")},
                           {"children", children()}}
                .dump()
                .c_str());
}
