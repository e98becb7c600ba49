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
  struct Launch {
    std::string apiBase;
    std::filesystem::path defaults;
    std::string appVersion = "1.0";
    bool followsNetwork = false;  ///< else the network counts as reachable
  };

  explicit HostProcess(const Launch& launch);
  /// Lets the process end by itself.
  ~HostProcess();
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  /// Sends a command without waiting.
  void send(std::string_view command);
  /// The next answer that begins with `expected`, without its "= "; what came before is kept in
  /// `lines`. Empty when the process ends or nothing comes for ten seconds.
  std::string await(std::string_view expected);
  std::string ask(std::string_view command, std::string_view expected) {
    send(command);
    return await(expected);
  }
  /// SIGKILL so long from now, whatever the process is doing by then.
  void killAfter(std::chrono::microseconds delay);
  /// SIGKILL, and what it had answered until then.
  std::vector<std::string> kill();

  const std::vector<std::string>& lines() const { return lines_; }
  /// How many lines of the log so far contain `text`.
  int count(std::string_view text) const;

 private:
  bool readLine(std::chrono::milliseconds limit, std::string& line);
  void finish();

  pid_t pid_ = -1;
  std::jthread killer_;
  int input_ = -1, output_ = -1;
  std::string pending_;
  std::vector<std::string> lines_;
};

}  // namespace kva::story
