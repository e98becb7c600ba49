#include "sandbox/HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <list>
#include <memory>
#include <utility>

namespace kva::sandbox {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kIdleLimit{60'000};
constexpr milliseconds kIOLimit{30'000};
constexpr int kBacklog = 1024;
constexpr std::size_t kLargestBody = 32U << 20U;

thread_local Connection* currentConnection = nullptr;

/// Returns true when one of `events`, or the connection's end, arrives within the limit.
bool waitFor(int socket, short events, milliseconds limit) {
  pollfd entry{.fd = socket, .events = events, .revents = 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, limit.count() < 0 ? -1 : static_cast<int>(limit.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

void addressOf(int socket, int (*query)(int, sockaddr*, socklen_t*), std::string& ip, int& port) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  if (query(socket, reinterpret_cast<sockaddr*>(&storage), &size) != 0) return;
  char text[INET6_ADDRSTRLEN] = "";
  if (storage.ss_family == AF_INET) {
    const auto* address = reinterpret_cast<const sockaddr_in*>(&storage);
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    port = ntohs(address->sin_port);
  } else if (storage.ss_family == AF_INET6) {
    const auto* address = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
    port = ntohs(address->sin6_port);
  }
  ip = text;
}

/// Runs every connection on its own thread, so a connection that hangs delays no other.
class ThreadPerConnection : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> serve) override {
    workers_.remove_if([](Worker& worker) {
      if (worker.done->load()) worker.thread.join();
      return !worker.thread.joinable();
    });
    auto done = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back({std::thread([serve = std::move(serve), done] {
                          serve();
                          done->store(true);
                        }),
                        done});
  }
  void shutdown() override {
    for (Worker& worker : workers_) worker.thread.join();
    workers_.clear();
  }

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  std::list<Worker> workers_;  // used on the listening thread only
};

/// Changes headers that the library would handle badly.
void adapt(httplib::Request& request) {
  // It reads a POST without a length until the connection ends, but it has no body.
  if (!request.has_header("Content-Length") && !request.has_header("Transfer-Encoding"))
    request.set_header("Content-Length", "0");
  // It compresses with Brotli's slowest level, for milliseconds even if the answer is short.
  const bool takesGzip =
      request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
  request.headers.erase("Accept-Encoding");
  if (takesGzip) request.set_header("Accept-Encoding", "gzip");
}

}  // namespace

Connection& Connection::current() { return *currentConnection; }

bool Connection::waitUntilOver(milliseconds limit) const {
  return waitFor(socket_, POLLRDHUP, limit);
}

void Connection::abandon(Ending ending) {
  abandoned_ = true;
  if (ending == Ending::close) return;
  linger immediately{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
}

bool Connection::waitForRequest() const {
  return taken_ < filled_ || waitFor(socket_, POLLIN, kIdleLimit);
}

bool Connection::is_readable() const {
  return taken_ < filled_ || waitFor(socket_, POLLIN, kIOLimit);
}
bool Connection::is_writable() const { return !abandoned_ && waitFor(socket_, POLLOUT, kIOLimit); }

ssize_t Connection::read(char* into, std::size_t size) {
  if (!is_readable()) return -1;
  if (taken_ == filled_) {
    if (size >= buffer_.size()) return recv(socket_, into, size, 0);
    ssize_t got = recv(socket_, buffer_.data(), buffer_.size(), 0);
    if (got <= 0) return got;
    taken_ = 0;
    filled_ = static_cast<std::size_t>(got);
  }
  std::size_t count = std::min(size, filled_ - taken_);
  std::memcpy(into, buffer_.data() + taken_, count);
  taken_ += count;
  return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* from, std::size_t size) {
  if (spoil_) {
    held_.append(from, size);
    return static_cast<ssize_t>(size);
  }
  if (!is_writable()) return -1;
  return send(socket_, from, size, MSG_NOSIGNAL);
}

void Connection::holdAnswer(Spoil spoil, std::size_t pieces) {
  spoil_ = std::move(spoil);
  pieces_ = pieces;
}

void Connection::sendHeldAnswer() {
  const Spoil spoil = std::exchange(spoil_, nullptr);
  if (!spoil) return;
  std::string answer = std::exchange(held_, {});
  const auto ending = spoil(answer);
  const std::size_t piece = answer.size() / pieces_ + 1;
  for (std::string_view rest = answer; !rest.empty();) {
    const ssize_t sent = write(rest.data(), std::min(piece, rest.size()));
    if (sent <= 0) return abandon(Ending::close);
    rest.remove_prefix(static_cast<std::size_t>(sent));
    if (pieces_ > 1) std::this_thread::sleep_for(milliseconds(2));
  }
  if (ending) abandon(*ending);
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  addressOf(socket_, getpeername, ip, port);
}
void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  addressOf(socket_, getsockname, ip, port);
}

HttpServer::HttpServer() {
  new_task_queue = [] { return new ThreadPerConnection; };
  set_payload_max_length(kLargestBody);
  set_keep_alive_timeout(kIdleLimit.count() / 1000);  // what the answers announce
  set_keep_alive_max_count(std::numeric_limits<int>::max());
  // By default the library shares the port with other programs. A second sandbox must fail.
  set_socket_options([](socket_t socket) {
    int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
}

int HttpServer::bind(const std::string& host, int port) {
  int bound = port == 0 ? bind_to_any_port(host) : bind_to_port(host, port) ? port : -1;
  if (bound < 0) return bound;
  ::listen(svr_sock_, kBacklog);  // with the library's backlog of 5, bursts of clients wait
  return bound;
}

void HttpServer::startServing() {
  listener_ = std::thread([this] { listen_after_bind(); });
}

void HttpServer::stopServing() {
  clients_.with([](Clients& clients) {
    clients.stopping = true;
    for (int socket : clients.sockets) shutdown(socket, SHUT_RDWR);
  });
  if (!listener_.joinable()) return;
  // accept() fails on the listening thread, which then closes the socket and joins the others.
  shutdown(svr_sock_, SHUT_RDWR);
  listener_.join();
}

bool HttpServer::admit(int socket) {
  return clients_.with([&](Clients& clients) {
    if (!clients.stopping) clients.sockets.insert(socket);
    return !clients.stopping;
  });
}

void HttpServer::dismiss(int socket) {
  clients_.with([&](Clients& clients) { clients.sockets.erase(socket); });
}

bool HttpServer::process_and_close_socket(socket_t socket) {
  bool served = false;
  if (admit(socket)) {
    int yes = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    Connection connection(socket);
    currentConnection = &connection;
    bool over = false;
    while (!over && connection.waitForRequest()) {
      served = process_request(connection, /*close_connection=*/false, over, adapt);
      connection.sendHeldAnswer();
      // The library also reports success when it fails to write an answer without a body.
      over = over || !served || connection.isAbandoned();
    }
    currentConnection = nullptr;
    dismiss(socket);
  }
  // After dismissal, so stopServing() never shuts down a reused descriptor.
  close(socket);
  return served;
}

}  // namespace kva::sandbox
