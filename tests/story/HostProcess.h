#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kva::story {

/// One launch of a host application, in a process of its own (see host_process.cpp).
class HostProcess {
 public:
  HostProcess(const std::string& apiBase, const std::filesystem::path& defaults,
              const std::string& appVersion = "1.0");
  /// Lets the process end by itself.
  ~HostProcess();

  /// Sends a command without waiting.
  void send(std::string_view command) const;
  /// The next answer that begins with `expected`, without its "= "; empty when the process ends.
  std::string await(std::string_view expected);
  std::string ask(std::string_view command, std::string_view expected) {
    send(command);
    return await(expected);
  }
  /// All that it has answered so far.
  const std::vector<std::string>& answers() const { return answers_; }
  /// SIGKILL so long from now, whatever the process is doing by then.
  void killAfter(std::chrono::microseconds delay);
  /// SIGKILL, and all that it had answered until then.
  std::vector<std::string> kill();

 private:
  void finish();

  pid_t pid_ = -1;
  std::jthread killer_;
  int input_ = -1;
  std::FILE* output_ = nullptr;
  std::vector<std::string> answers_;
};

}  // namespace kva::story
