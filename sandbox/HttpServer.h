#pragma once

#include <httplib.h>

#include <array>
#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "Kelvara/base/Guarded.h"

namespace kva::sandbox {

/// One accepted connection: the stream that the HTTP library reads and writes, and the means to
/// misbehave on purpose. Each connection has its own thread, which alone uses it.
class Connection final : public httplib::Stream {
 public:
  explicit Connection(int socket) : socket_(socket) {}

  /// The connection whose request this thread is handling.
  static Connection& current();

  /// Waits until the client closes the connection, the server stops or the limit passes (below
  /// zero: no limit). Returns true when the connection is over.
  bool waitUntilOver(std::chrono::milliseconds limit) const;

  /// Stops sending. The connection ends when the handler returns: by a reset, or closed in order.
  enum class Ending { reset, close };
  void abandon(Ending ending);
  bool isAbandoned() const { return abandoned_; }

  /// Changes the bytes of an answer, header included. Returns how the connection ends after them;
  /// nothing: it serves the next request.
  using Spoil = std::function<std::optional<Ending>(std::string& answer)>;
  /// Holds back the answer to this request until it is complete, then sends what `spoil` makes of
  /// it in `pieces`, 2 ms apart.
  void holdAnswer(Spoil spoil, std::size_t pieces);
  void sendHeldAnswer();

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* into, std::size_t size) override;
  ssize_t write(const char* from, std::size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return socket_; }

  /// Waits until another request begins to arrive. Returns false when the idle limit passes first.
  bool waitForRequest() const;

 private:
  int socket_;
  bool abandoned_ = false;
  Spoil spoil_;
  std::size_t pieces_ = 1;
  std::string held_;
  std::array<char, 4096> buffer_{};  // the library asks for single bytes
  std::size_t taken_ = 0, filled_ = 0;
};

/// The HTTP library's server, with one thread and one Connection per client. It stops promptly.
class HttpServer : public httplib::Server {
 public:
  HttpServer();
  ~HttpServer() override { stopServing(); }

  /// Returns the port, or a value below zero when the address is not available.
  int bind(const std::string& host, int port);
  /// Serves the bound address on the server's own threads. Call bind() first.
  void startServing();
  /// Ends every connection in any state, and returns when the last thread has ended.
  void stopServing();

 private:
  bool process_and_close_socket(socket_t socket) override;
  bool admit(int socket);
  void dismiss(int socket);

  struct Clients {
    std::set<int> sockets;
    bool stopping = false;
  };
  Guarded<Clients> clients_;
  std::thread listener_;
};

}  // namespace kva::sandbox
