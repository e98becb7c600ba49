#include "story/HostProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace kva::story {
namespace {

void killProcess(pid_t pid) {
  if (pid > 0) kill(pid, SIGKILL);  // a number below would mean every process there is
}

}  // namespace

HostProcess::HostProcess(const std::string& apiBase, const std::filesystem::path& defaults,
                         const std::string& appVersion) {
  // A process that ends leaves its pipe behind; writing to it is no reason to end as well.
  signal(SIGPIPE, SIG_IGN);
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "story_host";
  std::array<std::string, 4> words = {program, apiBase, defaults, appVersion};
  char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  input_ = in[1];
  output_ = fdopen(out[0], "r");
}

HostProcess::~HostProcess() { finish(); }

void HostProcess::finish() {
  if (!output_) return;
  close(input_);
  await("nothing of this kind");
  fclose(output_);
  output_ = nullptr;
  killer_ = {};  // before the process's number may mean another
  int status = 0;
  waitpid(pid_, &status, 0);
  // A sanitizer's findings among other endings.
  EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL))
      << "the host process ended with status " << status;
}

void HostProcess::send(std::string_view command) const {
  const std::string line = std::string(command) + "\n";
  [[maybe_unused]] const auto written = write(input_, line.data(), line.size());
}

std::string HostProcess::await(std::string_view expected) {
  char line[4096];
  while (fgets(line, sizeof line, output_)) {
    const std::string_view text = line;
    if (!text.starts_with("= ")) continue;  // the SDK's log
    answers_.emplace_back(text.substr(2, text.find('\n') - 2));
    if (answers_.back().starts_with(expected)) return answers_.back();
  }
  return {};
}

void HostProcess::killAfter(std::chrono::microseconds delay) {
  killer_ = std::jthread([delay, pid = pid_] {
    std::this_thread::sleep_for(delay);
    killProcess(pid);
  });
}

std::vector<std::string> HostProcess::kill() {
  killProcess(pid_);
  finish();
  return answers_;
}

}  // namespace kva::story
