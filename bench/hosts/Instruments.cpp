#include "bench/hosts/Instruments.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <gdk/x11/gdkx.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench/hosts/Colours.h"

namespace kva::bench {
namespace {

constexpr double kLimitSeconds = 30;

[[noreturn]] void giveUp(const char* why) {
  std::fprintf(stderr, "host: %s\n", why);
  std::_Exit(1);
}

/// The number after `name` in a file of /proc.
double numberAfter(const std::filesystem::path& file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name)) return std::stod(line.substr(name.size()));
  return 0;
}

/// Each process that descends from this one, with its processor time in milliseconds.
std::map<pid_t, double> descendants() {
  std::map<pid_t, pid_t> parents;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    parents[std::stoi(name)] = static_cast<pid_t>(numberAfter(entry.path() / "status", "PPid:"));
  }
  std::map<pid_t, double> found;
  for (auto [process, parent] : parents) {
    while (parent > 1 && parent != getpid()) parent = parents[parent];
    clockid_t clock{};
    timespec used{};
    if (parent != getpid() || clock_getcpuclockid(process, &clock) != 0) continue;
    if (clock_gettime(clock, &used) == 0)
      found[process] =
          static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
  }
  return found;
}

double processorTime() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

/// How often each thread of this process has slept, by thread.
std::map<std::string, double> sleeps() {
  std::map<std::string, double> found;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
    found[thread.path().filename()] =
        numberAfter(thread.path() / "status", "voluntary_ctxt_switches:");
  return found;
}

/// The growth of the values that are in `after`; a thread or process that has ended does not count.
template <class Map>
double growth(const Map& before, const Map& after) {
  double sum = 0;
  for (const auto& [key, value] : after) sum += value - (before.contains(key) ? before.at(key) : 0);
  return sum;
}

gboolean setTrue(gpointer flag) {
  *static_cast<bool*>(flag) = true;
  return G_SOURCE_REMOVE;
}

}  // namespace

double now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

void report(const char* name, double value) {
  std::printf("%s %.6f\n", name, value);
  std::fflush(stdout);
}

void runUntil(const std::function<bool()>& done) {
  const guint limit = g_timeout_add_seconds(
      static_cast<guint>(kLimitSeconds),
      [](gpointer) -> gboolean { giveUp("an awaited event did not come"); }, nullptr);
  while (!done()) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(limit);
}

void runFor(double seconds) {
  bool isOver = false;
  g_timeout_add(static_cast<guint>(seconds * 1e3), setTrue, &isOver);
  while (!isOver) g_main_context_iteration(nullptr, TRUE);
}

HostWindow::HostWindow()
    : window_(GTK_WINDOW(gtk_window_new())), overlay_(GTK_OVERLAY(gtk_overlay_new())) {
  auto* style = gtk_css_provider_new();
  const std::string rule = ".content { background: " + css(kHostColour) + "; }";
  gtk_css_provider_load_from_data(style, rule.c_str(), -1);
  gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(style),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(style);
  auto* content = gtk_label_new("");
  gtk_widget_add_css_class(content, "content");
  gtk_overlay_set_child(overlay_, content);
  gtk_window_set_decorated(window_, FALSE);
  gtk_window_set_default_size(window_, 800, 600);
  gtk_window_set_child(window_, GTK_WIDGET(overlay_));
  gtk_window_present(window_);
  runFor(0.5);
}

PixelWatch::PixelWatch(GtkWindow* window) {
  auto* surface = gtk_native_get_surface(GTK_NATIVE(window));
  const int scale = gdk_surface_get_scale_factor(surface);
  thread_ = std::thread(
      &PixelWatch::watch, this, std::string(gdk_display_get_name(gdk_surface_get_display(surface))),
      gdk_x11_surface_get_xid(surface), gdk_surface_get_width(surface) * scale / 2,
      gdk_surface_get_height(surface) * scale / 2);
  runFor(0.2);  // the connection opens
}

void PixelWatch::watch(const std::string& name, unsigned long window, int x, int y) {
  Display* display = XOpenDisplay(name.c_str());
  if (!display) giveUp("the X server took no second connection");
  while (!isStopping_) {
    XImage* image = XGetImage(display, window, x, y, 1, 1, AllPlanes, ZPixmap);
    if (!image) giveUp("the window has no pixels");
    const unsigned long pixel = XGetPixel(image, 0, 0) & 0xFFFFFF;
    XDestroyImage(image);
    if (changes_.empty() || changes_.back().second != pixel) changes_.emplace_back(now(), pixel);
    usleep(500);
  }
  XCloseDisplay(display);
}

void PixelWatch::stop() {
  isStopping_ = true;
  if (thread_.joinable()) thread_.join();
}

PixelWatch::Shown PixelWatch::since(double begin) {
  stop();
  Shown shown;
  for (const auto& [time, pixel] : changes_) {
    if (time < begin) continue;
    const Colour seen = colour(pixel);
    shown.darkest = std::max(shown.darkest, kHostColour.green - seen.green);
    if (shown.firstPixel == 0 && pageShare(seen) > kVisibleShare) shown.firstPixel = time - begin;
    if (shown.finalColour == 0 && isPageColour(seen)) shown.finalColour = time - begin;
  }
  if (shown.finalColour == 0) {
    for (const auto& [time, pixel] : changes_)
      std::fprintf(stderr, "host: %.1f ms: %06lx\n", time - begin, pixel);
    giveUp("the window never had the page's colour");
  }
  return shown;
}

gboolean LoopGap::tick(gpointer data) {
  auto& self = *static_cast<LoopGap*>(data);
  const double time = now();
  self.longest_ = std::max(self.longest_, time - self.last_);
  self.last_ = time;
  return G_SOURCE_CONTINUE;
}

void reportCost(double seconds) {
  const auto childrenBefore = descendants();
  const auto sleepsBefore = sleeps();
  const double hostBefore = processorTime();
  runFor(seconds);
  const double host = processorTime() - hostBefore;
  report("wakeUps", growth(sleepsBefore, sleeps()) / seconds);
  report("host", host);
  report("children", growth(childrenBefore, descendants()));
}

// The allocator returns what it keeps for later first: these gaps move by 15 MB from ad to ad.
double privateMemory() {
  malloc_trim(0);
  return numberAfter("/proc/self/smaps_rollup", "Private_Dirty:") / 1024;
}

}  // namespace kva::bench
