#pragma once

#include <httplib.h>

#include <array>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "Kelvara/base/Guarded.h"

namespace kva::sandbox {

/// One accepted connection, as the HTTP library reads and writes it, plus what a server that
/// misbehaves on purpose needs. Used on its own thread only.
class Connection final : public httplib::Stream {
 public:
  explicit Connection(int socket) : socket_(socket) {}

  /// The connection whose request this thread is handling.
  static Connection& current();

  /// Waits until the client has gone, the server stops or the time is up (below zero: never).
  /// True when the connection is over.
  bool waitUntilOver(std::chrono::milliseconds limit) const;

  /// Nothing more is sent and the connection closes when the handler returns, with a reset or
  /// in good order.
  enum class Ending { reset, close };
  void abandon(Ending ending);
  bool isAbandoned() const { return abandoned_; }

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* into, std::size_t size) override;
  ssize_t write(const char* from, std::size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return socket_; }

  /// Waits until another request has begun to arrive; false when none came in time.
  bool waitForRequest() const;

 private:
  int socket_;
  bool abandoned_ = false;
  std::array<char, 4096> buffer_{};  // the library asks for single bytes
  std::size_t taken_ = 0, filled_ = 0;
};

/// The HTTP library's server with a thread and a Connection per client, and a prompt end.
class HttpServer : public httplib::Server {
 public:
  HttpServer();
  ~HttpServer() override { stopServing(); }

  /// The port, or below zero when the address cannot be had.
  int bind(const std::string& host, int port);
  /// Serves what was bound, on threads of its own that see all that was written before.
  void startServing();
  /// Ends every connection, whatever it is doing, and returns when the last thread has ended.
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
