#pragma once

#include <gio/gio.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kva::story {

/// One launch of the host application of host_process.cpp, in its own process.
class HostProcess {
 public:
  HostProcess(const std::string& apiBase, const std::filesystem::path& defaults);
  /// Closes the process's input and waits until it ends.
  ~HostProcess();

  /// Sends a command without waiting.
  void send(std::string_view command) const;
  /// Returns the next answer that begins with `expected`, without its "= "; empty when the process
  /// ends.
  std::string await(std::string_view expected);
  std::string ask(std::string_view command, std::string_view expected) {
    send(command);
    return await(expected);
  }
  /// All answers so far.
  const std::vector<std::string>& answers() const { return answers_; }
  /// Sends SIGKILL after `delay`, on another thread.
  void killAfter(std::chrono::microseconds delay);
  /// Sends SIGKILL, and reads the answers that are left.
  void kill();

 private:
  void finish();

  GSubprocess* process_ = nullptr;
  GDataInputStream* output_ = nullptr;
  std::jthread killer_;
  std::vector<std::string> answers_;
};

}  // namespace kva::story
