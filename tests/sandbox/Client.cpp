#include "sandbox/Client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

namespace kva::sandbox {
namespace {

constexpr const char* kApiHeaders =
    "Host: sandbox.test\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
    "Connection: close\r\n";

}  // namespace

std::string Reply::verdict() const {
  auto envelope = json();
  if (!envelope.is_object() || !envelope.contains("ok")) return "no envelope";
  if (envelope["ok"] == true) return "ok";
  if (envelope["err"].is_null()) return "not ok";
  return std::to_string(envelope["err"]["code"].get<int>()) + " " +
         envelope["err"]["msg"].get<std::string>();
}

Reply exchangeBytes(int port, std::string_view bytes, std::chrono::milliseconds limit) {
  Reply reply;
  int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string received;
  if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    for (;;) {
      pollfd entry{.fd = socket, .events = POLLIN, .revents = 0};
      if (poll(&entry, 1, static_cast<int>(limit.count())) == 0) {
        reply.end = Reply::End::silent;
        break;
      }
      char piece[4096];
      ssize_t got = recv(socket, piece, sizeof piece, 0);
      if (got < 0 && errno == ECONNRESET) reply.end = Reply::End::reset;
      if (got <= 0) break;
      received.append(piece, static_cast<std::size_t>(got));
    }
  }
  close(socket);
  auto blank = received.find("\r\n\r\n");
  reply.head = received.substr(0, blank);
  if (blank != std::string::npos) reply.body = received.substr(blank + 4);
  if (reply.head.size() > 12) {
    std::from_chars(reply.head.data() + 9, reply.head.data() + 12, reply.status);
  }
  return reply;
}

Reply get(int port, const std::string& path, const std::string& headers) {
  return exchangeBytes(port, "GET " + path + " HTTP/1.1\r\n" + kApiHeaders + headers + "\r\n");
}

std::string postBytes(const std::string& path, const std::string& body) {
  return "POST " + path + " HTTP/1.1\r\n" + kApiHeaders +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

Reply post(int port, const std::string& path, const nlohmann::json& body) {
  return exchangeBytes(port, postBytes(path, body.dump(2)));
}

}  // namespace kva::sandbox
