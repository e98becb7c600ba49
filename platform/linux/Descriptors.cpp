#include "platform/linux/Descriptors.h"

#include <charconv>
#include <filesystem>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kva {
namespace {

bool isInheritableSocketPair(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  if (flags < 0 || (flags & FD_CLOEXEC)) return false;
  sockaddr_un name{}, peer{};
  socklen_t nameSize = sizeof name, peerSize = sizeof peer, typeSize = sizeof(int);
  int type = 0;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeSize) == 0 && type == SOCK_STREAM &&
         getsockname(fd, reinterpret_cast<sockaddr*>(&name), &nameSize) == 0 &&
         getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0 &&
         name.sun_family == AF_UNIX && nameSize == sizeof name.sun_family &&
         peerSize == sizeof peer.sun_family;
}

std::set<int> inheritableSocketPairs() {
  std::set<int> found;
  std::error_code unreadable;
  std::filesystem::directory_iterator all("/proc/self/fd", unreadable);
  for (; !unreadable && all != std::filesystem::directory_iterator(); all.increment(unreadable)) {
    const auto number = all->path().filename().native();
    int fd = -1;
    std::from_chars(number.data(), number.data() + number.size(), fd);
    if (isInheritableSocketPair(fd)) found.insert(fd);
  }
  return found;
}

}  // namespace

SocketPairGuard::SocketPairGuard() : before_(inheritableSocketPairs()) {}

SocketPairGuard::~SocketPairGuard() {
  for (const int fd : inheritableSocketPairs())
    if (!before_.contains(fd)) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

}  // namespace kva
