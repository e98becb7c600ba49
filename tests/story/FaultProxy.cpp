#include "story/FaultProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kNames[] = {
    "none",           "delay",           "throttle",        "refuse",
    "cut head",       "cut body",        "reset body",      "garbage before",
    "garbage within", "duplicate bytes", "duplicate answer"};
static_assert(std::size(kNames) == std::size(kFaults));

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

/// The length of the body that this header announces; absent where the header is not whole.
std::optional<std::size_t> messageLength(std::string_view bytes) {
  const auto end = bytes.find("\r\n\r\n");
  if (end == std::string_view::npos) return {};
  std::string head(bytes.substr(0, end));
  std::ranges::transform(head, head.begin(), [](char c) {
    return 'A' <= c && c <= 'Z' ? static_cast<char>(c + 32) : c;
  });
  std::size_t length = 0;
  constexpr std::string_view field = "\r\ncontent-length: ";
  if (const auto at = head.find(field); at != std::string::npos)
    std::from_chars(head.data() + at + field.size(), head.data() + head.size(), length);
  return end + 4 + length;
}

/// The other side sees a reset at once.
void resetConnection(int socket) {
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  connect(socket, &nobody, sizeof nobody);
}

}  // namespace

const char* name(Fault fault) { return kNames[static_cast<std::size_t>(fault)]; }

struct FaultProxy::Connection {
  explicit Connection(int accepted) : client(accepted) {}
  ~Connection() {
    if (thread.joinable()) thread.join();
    close(client);
    if (server >= 0) close(server);
  }

  /// One message, or what there is of it when it does not come whole.
  bool readMessage(int socket, std::string& buffered, std::string& message,
                   std::optional<milliseconds> limit);

  std::atomic<bool> done = false;
  int client = -1, server = -1;
  std::string fromClient, fromServer;  ///< read, and not yet passed on
  std::thread thread;
};

bool FaultProxy::Connection::readMessage(int socket, std::string& buffered, std::string& message,
                                         std::optional<milliseconds> limit) {
  const auto until = Clock::now() + limit.value_or(0ms);
  while (true) {
    if (const auto length = messageLength(buffered); length && *length <= buffered.size()) {
      message = buffered.substr(0, *length);
      buffered.erase(0, *length);
      return true;
    }
    message = buffered;
    int wait = -1;
    if (limit) {
      const auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now()).count();
      wait = static_cast<int>(std::max<std::int64_t>(left, 0));
    }
    pollfd entry{.fd = socket, .events = POLLIN, .revents = 0};
    if (poll(&entry, 1, wait) <= 0) return false;
    char piece[16384];
    const ssize_t got = recv(socket, piece, sizeof piece, 0);
    if (got <= 0) return false;
    buffered.append(piece, static_cast<std::size_t>(got));
  }
}

FaultProxy::FaultProxy(int serverPort, Choose choose)
    : serverPort_(serverPort),
      choose_(std::move(choose)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  auto address = loopback(0);
  bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t size = sizeof address;
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  listen(listener_, 256);
  acceptor_ = std::thread([this] { accept(); });
}

FaultProxy::~FaultProxy() {
  stopping_ = true;
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  for (const auto& connection : connections_) shutdown(connection->client, SHUT_RDWR);
  connections_.clear();
}

std::string FaultProxy::origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

void FaultProxy::accept() {
  while (!stopping_) {
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const int yes = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    std::erase_if(connections_, [](const auto& connection) { return connection->done.load(); });
    auto& connection = *connections_.emplace_back(std::make_unique<Connection>(client));
    connection.thread = std::thread([this, &connection] { serve(connection); });
  }
}

void FaultProxy::serve(Connection& connection) {
  const auto address = loopback(serverPort_);
  connection.server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(connection.server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    while (exchange(connection)) {
    }
  shutdown(connection.server, SHUT_RDWR);
  shutdown(connection.client, SHUT_RDWR);
  connection.done = true;
}

bool FaultProxy::exchange(Connection& connection) {
  std::string request;
  if (!connection.readMessage(connection.client, connection.fromClient, request, {})) return false;
  ++underWay_;
  const bool goesOn = passOn(connection, request, choose_(exchanges_++, request));
  --underWay_;
  return goesOn;
}

bool FaultProxy::passOn(Connection& connection, const std::string& request, Fault fault) {
  std::string answer;
  sendAll(connection.server, request);
  if (connection.readMessage(connection.server, connection.fromServer, answer, kPatience))
    return deliver(connection, std::move(answer), fault);
  sendAll(connection.client, answer);
  return false;
}

bool FaultProxy::deliver(Connection& connection, std::string answer, Fault fault) {
  const int client = connection.client;
  const std::size_t body = answer.find("\r\n\r\n") + 4;
  const std::size_t middle = body + (answer.size() - body) / 2;
  switch (fault) {
    case Fault::none:
      break;
    case Fault::delay:
      std::this_thread::sleep_for(20ms);
      break;
    case Fault::throttle:
      for (std::size_t at = 0; at < middle; at += middle / 8 + 1) {
        if (!sendAll(client,
                     std::string_view(answer).substr(at, std::min(middle / 8 + 1, middle - at))))
          return false;
        std::this_thread::sleep_for(2ms);
      }
      return sendAll(client, std::string_view(answer).substr(middle));
    case Fault::refuse:
      resetConnection(client);
      return false;
    case Fault::cutHead:
      sendAll(client, std::string_view(answer).substr(0, body / 2));
      return false;
    case Fault::cutBody:
      sendAll(client, std::string_view(answer).substr(0, middle));
      return false;
    case Fault::resetBody:
      sendAll(client, std::string_view(answer).substr(0, middle));
      resetConnection(client);
      return false;
    case Fault::garbageBefore:
      answer.insert(0, "\x16\x03\xff\0\r\n\xfe garbage \r\n"s);
      break;
    case Fault::garbageWithin:
      std::fill_n(answer.begin() + static_cast<std::ptrdiff_t>(middle),
                  std::min<std::size_t>(answer.size() - middle, 9), '\xff');
      break;
    case Fault::duplicateBytes: {
      const std::size_t size = answer.size();
      answer.insert(middle, answer.substr(middle, (size - middle) / 2));
      answer.resize(size);
      break;
    }
    case Fault::duplicateAnswer:
      answer += answer;
      break;
  }
  return sendAll(client, answer);
}

}  // namespace kva::story
