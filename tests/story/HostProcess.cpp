#include "story/HostProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

extern char** environ;

namespace kva::story {
namespace {

using namespace std::chrono_literals;

std::string program() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "story_host";
}

}  // namespace

HostProcess::HostProcess(const Launch& launch) {
  // A process that ends leaves its pipe behind; writing to it is no reason to end as well.
  signal(SIGPIPE, SIG_IGN);
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  std::vector<std::string> words = {program(), launch.apiBase, launch.defaults, launch.appVersion};
  if (launch.followsNetwork) words.push_back("follow");
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn(&pid_, words[0].c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  input_ = in[1];
  output_ = out[0];
}

HostProcess::~HostProcess() { finish(); }

void HostProcess::finish() {
  if (input_ >= 0) close(input_);
  input_ = -1;
  for (std::string line; readLine(10s, line);) lines_.push_back(line);
  if (output_ >= 0) close(output_);
  output_ = -1;
  killer_ = {};  // before the process's number may mean another
  int status = 0;
  if (pid_ > 0) waitpid(pid_, &status, 0);
  // A sanitizer's findings among other endings.
  EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL))
      << "the host process ended with status " << status;
  pid_ = -1;
}

void HostProcess::send(std::string_view command) {
  const std::string line = std::string(command) + "\n";
  [[maybe_unused]] const auto written = write(input_, line.data(), line.size());
}

std::string HostProcess::await(std::string_view expected) {
  for (std::string line; readLine(10s, line);) {
    lines_.push_back(line);
    if (line.starts_with("= ") && line.substr(2).starts_with(expected)) return line.substr(2);
  }
  return {};
}

void HostProcess::killAfter(std::chrono::microseconds delay) {
  killer_ = std::jthread([delay, pid = pid_] {
    std::this_thread::sleep_for(delay);
    if (pid > 0) ::kill(pid, SIGKILL);
  });
}

std::vector<std::string> HostProcess::kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
  finish();
  return lines_;
}

int HostProcess::count(std::string_view text) const {
  return static_cast<int>(
      std::ranges::count_if(lines_, [&](const std::string& line) { return line.contains(text); }));
}

bool HostProcess::readLine(std::chrono::milliseconds limit, std::string& line) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (true) {
    if (const auto end = pending_.find('\n'); end != std::string::npos) {
      line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    pollfd ready{output_, POLLIN, 0};
    if (left <= 0ms || output_ < 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0)
      return false;
    char buffer[4096];
    const auto count = read(output_, buffer, sizeof buffer);
    if (count <= 0) return false;
    pending_.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace kva::story
