// What a host pays for Kelvara before it uses it: a GTK host that is linked with it, and one that
// has made a `Host` without starting it, each beside the same host without Kelvara. Needs a
// display.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/Row.h"

namespace {

using kva::bench::Series;

constexpr int kRuns = 40, kIdleRuns = 9;

struct Figures {
  Series toMain, rss, privateMemory;
  double children = 0;
};

/// Runs `program` once and adds its figures.
void run(const std::filesystem::path& program, const char* mode, Figures& figures) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  std::string name = program.native(), argument = mode;
  char* arguments[] = {name.data(), argument.data(), nullptr};
  pid_t child = 0;
  const std::chrono::duration<double> began = std::chrono::steady_clock::now().time_since_epoch();
  if (posix_spawn(&child, name.c_str(), &actions, nullptr, arguments, environ) != 0)
    throw std::runtime_error("cannot run " + name);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string text;
  char buffer[512];
  for (ssize_t size = 0; (size = read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(size));
  close(ends[0]);
  waitpid(child, nullptr, 0);
  // The SDK logs to standard output, before the last line.
  const auto last = text.rfind('\n', text.size() - 2);
  const auto printed = nlohmann::json::parse(text.substr(last == text.npos ? 0 : last + 1));
  figures.toMain.add((printed["entered"].get<double>() - began.count()) * 1e3);
  figures.rss.add(printed["rss"]);
  figures.privateMemory.add(printed["private"]);
  if (!printed["children"].get<std::string>().empty()) ++figures.children;
}

void row(const std::string& what, const char* unit, const Series& ours, const Series& floor,
         double plus) {
  kva::bench::printRow(what, unit, ours.median(), floor.median(),
                       {.ratio = 1, .atLeast = {}, .plus = plus});
}

}  // namespace

int main() {
  const auto folder = std::filesystem::canonical("/proc/self/exe").parent_path();
  const auto with = folder / "link_host_kelvara", without = folder / "link_host_gtk";
  Figures linked, bare, host, window;
  for (int i = 0; i < kRuns; ++i) {
    run(without, "main", bare);
    run(with, "main", linked);
  }
  for (int i = 0; i < kIdleRuns; ++i) {
    run(without, "idle", window);
    run(with, "idle", host);
  }
  row("linked but unused: exec to main", "ms", linked.toMain, bare.toMain, 3);
  row("linked but unused: resident memory", "MB", linked.rss, bare.rss, 3);
  row("linked but unused: private memory", "MB", linked.privateMemory, bare.privateMemory, 3);
  row("a Host not started: private memory", "MB", host.privateMemory, window.privateMemory, 1);
  kva::bench::printRow("a Host not started: runs with a child process", "", host.children, {}, {});
}
