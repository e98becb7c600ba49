#include "platform/linux/ProcessOutput.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kva {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kLongestWait(100);

/// Discards the SIGPIPE that this thread's writes raise. A SIGPIPE that was pending before stays.
class WithoutSigpipe {
 public:
  WithoutSigpipe() {
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
  }
  ~WithoutSigpipe() {
    const timespec noTime{};
    if (!wasPending_) sigtimedwait(&sigpipe_, nullptr, &noTime);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;

 private:
  sigset_t sigpipe_, before_;
  bool wasPending_;
};

/// Opens standard output for one line. Writes must not block, so a pipe or a terminal is reopened
/// with O_NONBLOCK: other processes may share the host's open file description.
class Destination {
 public:
  Destination() {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0) return;
    isSocket_ = S_ISSOCK(status.st_mode);
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))
      own_ = open("/proc/self/fd/1",
                  fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  }
  ~Destination() {
    if (own_ >= 0) close(own_);
  }
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;

  ssize_t write(std::string_view text) const {
    if (isSocket_)
      return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return ::write(descriptor(), text.data(), text.size());
  }
  bool waitForRoom(Clock::time_point deadline) const {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    pollfd room{.fd = descriptor(), .events = POLLOUT, .revents = 0};
    return poll(&room, 1, static_cast<int>(std::max(left, milliseconds(0)).count())) > 0;
  }

 private:
  int descriptor() const { return own_ >= 0 ? own_ : STDOUT_FILENO; }

  int own_ = -1;
  bool isSocket_ = false;
};

}  // namespace

void ProcessOutput::print(LogLevel, std::string_view text) {
  state_.with([&](State& state) {
    const WithoutSigpipe guard;
    write(state, text);
  });
}

void ProcessOutput::write(State& state, std::string_view text) {
  const Destination output;
  std::string line = state.isMidLine ? "\n" : "";
  line.append(text).append("\n");
  const auto deadline = Clock::now() + (state.isStalled ? Clock::duration(0) : kLongestWait);
  std::string_view left = line;
  while (!left.empty() && output.waitForRoom(deadline)) {
    const ssize_t written = output.write(left);
    if (written < 0 && (errno == EINTR || errno == EAGAIN) && Clock::now() < deadline) continue;
    if (written < 0) break;
    left.remove_prefix(static_cast<std::size_t>(written));
    state.isMidLine = !left.empty();
  }
  state.isStalled = !left.empty();
}

}  // namespace kva
