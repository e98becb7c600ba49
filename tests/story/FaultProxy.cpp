#include "story/FaultProxy.h"

#include <netinet/tcp.h>

#include <charconv>
#include <string_view>
#include <utility>

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

/// The length of the message that begins with `bytes`; no message is as long before its header has
/// come whole.
std::size_t messageLength(std::string_view bytes) {
  constexpr std::string_view field = "\r\nContent-Length: ";
  const auto end = bytes.find("\r\n\r\n"), at = bytes.substr(0, end).find(field);
  std::size_t length = 0;
  if (end == std::string_view::npos) return end;
  if (at != std::string_view::npos)
    std::from_chars(bytes.data() + at + field.size(), bytes.data() + end, length);
  return end + 4 + length;
}

/// One message, or what there is of it when it does not come whole.
bool readMessage(int socket, std::string& message) {
  while (message.size() < messageLength(message)) {
    char piece[16384];
    const ssize_t got = recv(socket, piece, sizeof piece, 0);
    if (got <= 0) return false;
    message.append(piece, static_cast<std::size_t>(got));
  }
  return true;
}

/// Harms the answer, and tells whether the connection goes on after it.
bool harm(std::string& answer, Fault fault) {
  const std::size_t body = answer.find("\r\n\r\n") + 4, size = answer.size();
  const std::size_t middle = body + (size - body) / 2;
  switch (fault) {
    case Fault::none:
    case Fault::throttle:
      return true;
    case Fault::delay:
      std::this_thread::sleep_for(20ms);
      return true;
    case Fault::garbageBefore:
      answer.insert(0, "\x16\x03\xff\0\r\n\xfe garbage \r\n"s);
      return true;
    case Fault::garbageWithin:
      answer.replace(middle, 9, std::min<std::size_t>(size - middle, 9), '\xff');
      return true;
    case Fault::duplicateBytes:
      answer.insert(middle, answer.substr(middle, (size - middle) / 2));
      answer.resize(size);
      return true;
    case Fault::duplicateAnswer:
      answer += answer;
      return true;
    case Fault::refuse:
      answer.clear();
      return false;
    case Fault::cutHead:
      answer.resize(body / 2);
      return false;
    case Fault::cutBody:
    case Fault::resetBody:
      answer.resize(middle);
      return false;
  }
  return false;
}

}  // namespace

FaultProxy::FaultProxy(int serverPort, Choose choose)
    : serverPort_(serverPort), choose_(std::move(choose)) {
  listen(listener_.fd, 256);
  acceptor_ = std::thread([this] { accept(); });
}

FaultProxy::~FaultProxy() {
  stopping_ = true;
  shutdown(listener_.fd, SHUT_RDWR);
  acceptor_.join();
  const auto end = [](const std::set<int>& clients) {
    for (const int client : clients) shutdown(client, SHUT_RDWR);
    return clients.empty();
  };
  while (!clients_.with(end)) std::this_thread::sleep_for(1ms);
}

void FaultProxy::accept() {
  while (!stopping_) {
    const int client = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    clients_.with([&](auto& clients) { clients.insert(client); });
    std::thread([this, client] { serve(client); }).detach();
  }
}

void FaultProxy::serve(int client) {
  const test::LoopbackSocket server;
  auto address = server.address;
  address.sin_port = htons(static_cast<std::uint16_t>(serverPort_));
  const int yes = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  if (connect(server.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    while (exchange(client, server.fd)) {
    }
  // Only then may the proxy be gone, and the number mean another connection.
  clients_.with([&](auto& clients) {
    close(client);
    clients.erase(client);
  });
}

bool FaultProxy::exchange(int client, int server) {
  std::string request, answer;
  if (!readMessage(client, request)) return false;
  ++underWay_;
  const Fault fault = choose_(exchanges_++, request);
  const auto micros = patience_.load().count();
  const timeval patience{.tv_sec = micros / 1'000'000, .tv_usec = micros % 1'000'000};
  setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  sendAll(server, request);
  bool goesOn = readMessage(server, answer) && harm(answer, fault);
  const std::size_t crumb = fault == Fault::throttle ? answer.size() / 16 + 1 : answer.size();
  for (std::size_t at = 0; at < answer.size(); at += crumb) {
    if (at > 0) std::this_thread::sleep_for(2ms);
    if (!sendAll(client, std::string_view(answer).substr(at, crumb))) goesOn = false;
  }
  if (fault == Fault::refuse || fault == Fault::resetBody) {
    const linger atOnce{.l_onoff = 1, .l_linger = 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  }
  --underWay_;
  return goesOn;
}

}  // namespace kva::story
