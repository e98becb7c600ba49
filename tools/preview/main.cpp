#include <gtk/gtk.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Playthrough.h"
#include "Report.h"
#include "Window.h"

namespace {

using namespace kva::preview;
namespace fs = std::filesystem;

constexpr const char* kAbout =
    "Shows a creative as the SDK shows it. With --report, --junit or --screenshots it plays the "
    "creative by itself on a display of its own and judges it: the exit status is 0 for a good "
    "creative, 1 for a bad one, 2 if it could not be played.";
constexpr int kGood = 0, kBad = 1, kNotPlayed = 2;

// Set in the process that runs inside its own display.
constexpr const char* kInside = "KELVARA_PREVIEW_DISPLAY";

struct CommandLine {
  Request request;
  Settings settings;
  Plan plan;
  Limits limits;
  int width = 360, height = 640;
  fs::path report, junit;
  bool isSlow = false;

  bool judges() const { return !report.empty() || !junit.empty() || !plan.screenshots.empty(); }
};

constexpr Link kSlowLink{.latency = std::chrono::milliseconds(400), .bytesPerSecond = 100'000};

/// Replaces this process by one on an X display and a session bus of its own. Returns only if it
/// cannot.
int moveToOwnDisplay(int count, char** arguments, const CommandLine& line) {
  for (const char* tool : {"dbus-run-session", "xvfb-run"}) {
    if (kva::GStringPtr(g_find_program_in_path(tool))) continue;
    std::cerr << "kelvara-preview: " << tool
              << " is missing. On Debian: apt install xvfb xauth dbus\n";
    return kNotPlayed;
  }
  g_unsetenv("WAYLAND_DISPLAY");
  constexpr std::pair<const char*, const char*> kEnvironment[] = {{kInside, "1"},
                                                                  {"GDK_BACKEND", "x11"},
                                                                  {"GDK_SCALE", "1"},
                                                                  {"GTK_A11Y", "none"},
                                                                  {"NO_AT_BRIDGE", "1"}};
  for (const auto& [name, value] : kEnvironment) g_setenv(name, value, TRUE);
  const std::string screen =
      "-screen 0 " + std::to_string(line.width) + "x" + std::to_string(line.height) + "x24";
  const std::string self = fs::read_symlink("/proc/self/exe");
  std::vector<const char*> command = {"dbus-run-session", "--",        "xvfb-run", "-a", "-s",
                                      screen.c_str(),     self.c_str()};
  command.insert(command.end(), arguments + 1, arguments + count);
  command.push_back(nullptr);
  execvp(command[0], const_cast<char**>(command.data()));
  std::cerr << "kelvara-preview: cannot run " << command[0] << "\n";
  return kNotPlayed;
}

GtkWindow* makeWindow(const CommandLine& line) {
  auto* window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_decorated(window, FALSE);
  gtk_window_set_default_size(window, line.width, line.height);
  gtk_window_present(window);
  return window;
}

int judge(const CommandLine& line, const Creative& creative) {
  if (!line.plan.screenshots.empty()) fs::create_directories(line.plan.screenshots);
  auto* window = makeWindow(line);
  Observations observations;
  {
    Session session(creative, line.settings, window, observations);
    playThrough(session, creative, window, observations, line.plan);
    observations.judge(line.limits);
    std::cout << verdict(creative.name, observations) << std::flush;
    if (!line.report.empty() &&
        !writeReport(line.report, creative.name, observations, session.report()))
      throw std::runtime_error("cannot write " + line.report.string());
  }
  if (!line.junit.empty() && !writeJUnit(line.junit, creative.name, observations))
    throw std::runtime_error("cannot write " + line.junit.string());
  gtk_window_destroy(window);
  return observations.isGood() ? kGood : kBad;
}

/// Reads "360x640" and "0.5,0.8": two or more numbers with a separator.
template <class... Number>
CLI::Option* addNumbers(CLI::App& app, const std::string& name, char separator,
                        const std::string& text, const std::string& about, Number&... numbers) {
  return app
      .add_option_function<std::string>(
          name,
          [&, name, separator](const std::string& given) {
            std::istringstream stream(given);
            stream.imbue(std::locale::classic());
            char between = separator;
            bool isFirst = true;
            const auto read = [&](auto& number) {
              if (!isFirst) stream >> between;
              isFirst = false;
              stream >> number;
              return !stream.fail() && between == separator;
            };
            if (!(read(numbers) && ...) || stream.peek() != EOF)
              throw CLI::ValidationError(name, "cannot read \"" + given + "\"");
          },
          about)
      ->option_text(text);
}

void addOptions(CLI::App& app, CommandLine& line) {
  app.set_version_flag("--version", std::string("kelvara-preview ") + KELVARA_VERSION);
  app.add_option("CREATIVE", line.request.what, "An HTML file, a folder or an address")->required();
  app.add_option("--ad", line.request.ad,
                 "The ad's JSON for a template; by default ad.json of a folder")
      ->check(CLI::ExistingFile);
  app.add_flag("--rewarded", line.request.isRewarded, "Without an ad's JSON: a rewarded ad");
  app.add_flag("--video", line.request.isVideo,
               "Without an ad's JSON: a video, which reports when it can play and when it ends");
  app.add_option("--countdown", line.request.countdown,
                 "Without an ad's JSON: seconds until it may be closed")
      ->check(CLI::Range(0, 600))
      ->capture_default_str();
  addNumbers(app, "--size", 'x', "WxH [360x640]", "Size of the application's window", line.width,
             line.height);
  auto& safe = line.settings.safeArea;
  addNumbers(app, "--safe-area", ',', "TOP,LEFT,BOTTOM,RIGHT", "Edges that a notch or bezel hides",
             safe.top, safe.left, safe.bottom, safe.right);
  app.add_option("--language", line.settings.language, "The user's language, such as de");
  app.add_flag("--muted", line.settings.isMuted, "Ads begin without sound");
  app.add_flag("--slow", line.isSlow,
               "A slow network: 400 ms and 100 kB/s for the creative's files");
  app.add_option("--report", line.report, "Write what was seen and judged, as JSON");
  app.add_option("--junit", line.junit, "Write a test case for each rule, as JUnit XML");
  app.add_option("--screenshots", line.plan.screenshots, "Folder for pictures");
  addNumbers(app, "--tap", ',', "X,Y [0.5,0.5]", "Where to tap, as parts of the width and height",
             line.plan.tapX, line.plan.tapY);
  app.add_option("--max-ready", line.limits.readySeconds, "Seconds until the page is ready")
      ->capture_default_str();
  app.add_option("--max-weight", line.limits.weight, "Bytes of the page and its files")
      ->capture_default_str();
  app.add_option("--min-frame-rate", line.limits.framesPerSecond, "Frames a second while shown")
      ->capture_default_str();
}

}  // namespace

int main(int count, char** arguments) {
  CommandLine line;
  CLI::App app{kAbout};
  addOptions(app, line);
  try {
    app.parse(count, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kGood : kNotPlayed;
  }
  if (line.width < 1 || line.height < 1) {
    std::cerr << "kelvara-preview: the size must not be empty\n";
    return kNotPlayed;
  }
  if (line.isSlow) line.settings.link = kSlowLink;
  if (line.judges() && !g_getenv(kInside)) return moveToOwnDisplay(count, arguments, line);
  const auto creative = readCreative(line.request);
  if (!creative) {
    std::cerr << "kelvara-preview: " << creative.error() << "\n";
    return kNotPlayed;
  }
  if (!gtk_init_check()) {
    std::cerr << "kelvara-preview: there is no display. Use --report to play the creative without "
                 "one.\n";
    return kNotPlayed;
  }
  try {
    if (line.judges()) return judge(line, *creative);
    const kva::Size device{static_cast<double>(line.width), static_cast<double>(line.height)};
    Window(line.request, line.settings, line.limits, device).run();
    return kGood;
  } catch (const std::exception& error) {
    std::cerr << "kelvara-preview: " << error.what() << "\n";
    return kNotPlayed;
  }
}
