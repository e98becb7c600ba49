#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <thread>
#include <vector>

namespace kva::story {

/// One launch of the host application of host_process.cpp, in its own process.
class HostProcess {
 public:
  HostProcess(const std::string& apiBase, const std::filesystem::path& defaults) {
    signal(SIGPIPE, SIG_IGN);  // send() may write to a process that is gone
    const auto program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "story_host";
    process_ =
        g_subprocess_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                       G_SUBPROCESS_FLAGS_STDOUT_PIPE),
                         nullptr, program.c_str(), apiBase.c_str(), defaults.c_str(), nullptr);
    output_ = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process_));
  }
  /// Closes the process's input and waits until it ends.
  ~HostProcess() { finish(); }

  /// Sends a command without waiting.
  void send(std::string_view command) const {
    const std::string line = std::string(command) + "\n";
    g_output_stream_write_all(g_subprocess_get_stdin_pipe(process_), line.data(), line.size(),
                              nullptr, nullptr, nullptr);
  }
  /// Returns the next answer that begins with `expected`, without its "= "; empty when the process
  /// ends.
  std::string await(std::string_view expected) {
    for (;;) {
      g_autofree char* line = g_data_input_stream_read_line(output_, nullptr, nullptr, nullptr);
      if (!line) return {};
      const std::string_view text = line;
      if (!text.starts_with("= ")) continue;  // the SDK's log
      answers_.emplace_back(text.substr(2));
      if (answers_.back().starts_with(expected)) return answers_.back();
    }
  }
  std::string ask(std::string_view command, std::string_view expected) {
    send(command);
    return await(expected);
  }
  /// All answers so far.
  const std::vector<std::string>& answers() const { return answers_; }
  /// Sends SIGKILL after `delay`, on another thread.
  void killAfter(std::chrono::microseconds delay) {
    killer_ = std::jthread([delay, process = process_] {
      std::this_thread::sleep_for(delay);
      g_subprocess_force_exit(process);
    });
  }
  /// Sends SIGKILL and reads all answers of the process.
  void kill() {
    g_subprocess_force_exit(process_);
    finish();
  }

 private:
  void finish() {
    if (!output_) return;
    g_output_stream_close(g_subprocess_get_stdin_pipe(process_), nullptr, nullptr);
    await("no answer, so all are read");
    killer_ = {};
    g_subprocess_wait(process_, nullptr, nullptr);
    // A sanitizer ends the process with another status.
    EXPECT_TRUE(g_subprocess_get_if_signaled(process_)
                    ? g_subprocess_get_term_sig(process_) == SIGKILL
                    : g_subprocess_get_exit_status(process_) == 0)
        << "the host process ended with status " << g_subprocess_get_status(process_);
    g_clear_object(&output_);
    g_clear_object(&process_);
  }

  GSubprocess* process_ = nullptr;
  GDataInputStream* output_ = nullptr;
  std::jthread killer_;
  std::vector<std::string> answers_;
};

}  // namespace kva::story
