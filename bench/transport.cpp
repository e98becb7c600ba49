// The time of a request by the URL session and by bare libcurl, on one keep-alive connection over
// loopback.
#include <thread>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/measure.h"
#include "platform/linux/CurlSession.h"
#include "platform/linux/Threads.h"

namespace {

/// Answers every request on every connection with a small JSON text.
class Server {
 public:
  Server() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    listen(fd_, 16);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/api/v1/init";
    std::thread([this] {
      for (int peer; (peer = accept(fd_, nullptr, nullptr)) >= 0;)
        std::thread([peer] { serve(peer); }).detach();
    }).detach();
  }
  const std::string& url() const { return url_; }

 private:
  static void serve(int peer) {
    constexpr std::string_view answer =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 19\r\n\r\n"
        "{\"ok\":true,\"n\":123}";
    const int on = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string request;
    char chunk[4096];
    for (ssize_t got; (got = recv(peer, chunk, sizeof chunk, 0)) > 0;) {
      request.append(chunk, static_cast<std::size_t>(got));
      if (!request.ends_with("\r\n\r\n")) continue;
      request.clear();
      if (send(peer, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
    }
    close(peer);
  }
  int fd_;
  std::string url_;
};

std::size_t append(char* bytes, std::size_t, std::size_t size, void* text) {
  static_cast<std::string*>(text)->append(bytes, size);
  return size;
}

}  // namespace

int main() {
  using namespace kva;
  Server server;
  CurlSession session;
  const auto url = *URL::parse(server.url());
  CURL* easy = curl_easy_init();
  std::string received;
  curl_easy_setopt(easy, CURLOPT_URL, server.url().c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &received);

  Semaphore answered;
  const auto request = [&] { return URLRequest{.url = url, .headers = {}, .body = {}}; };
  const auto sendAndWait = [&] {
    session.send(request(), [&](URLSession::Outcome) { answered.release(); });
    answered.acquire();
  };
  bench::Series bare("bare libcurl, one handle, calling thread");
  bench::Series ours("URL session, sent and awaited by a thread");
  // In turns, so that other load on the machine affects both alike.
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 100; ++i) {
      received.clear();
      bare.measure([&] { curl_easy_perform(easy); });
    }
    for (int i = 0; i < 100; ++i) ours.measure(sendAndWait);
  }
  bare.print();
  ours.print();

  constexpr int kChained = 100;
  int left = 0;
  std::function<void()> next = [&] {
    session.send(request(), [&](URLSession::Outcome) { --left > 0 ? next() : answered.release(); });
  };
  bench::Series chained("URL session, each sent by the last one's done");
  for (int round = 0; round < 50; ++round)
    chained.measure(
        [&] {
          left = kChained;
          next();
          answered.acquire();
        },
        kChained);
  chained.print();
  session.invalidate();
  curl_easy_cleanup(easy);
}
