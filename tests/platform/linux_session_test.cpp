// The URL session against real servers on this machine, well-behaved and not.
#include <platform/linux/CurlSession.h>

#include <atomic>
#include <future>
#include <set>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <Kelvara/base/Guarded.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

using Outcome = URLSession::Outcome;

/// Reads a request's head from every connection, answers with raw bytes, and closes.
class RawServer {
 public:
  explicit RawServer(std::string answer, bool reset = false)
      : answer_(std::move(answer)), reset_(reset) {
    listen(socket_.fd, 64);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawServer() {
    shutdown(socket_.fd, SHUT_RDWR);
    thread_.join();
  }
  URL url() const { return socket_.url(); }
  std::string base() const { return socket_.base(); }
  int connections() const { return connections_; }

 private:
  void serve() {
    for (int peer; (peer = accept4(socket_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++connections_;
      std::string head;
      char byte;
      while (!head.ends_with("\r\n\r\n") && recv(peer, &byte, 1, 0) == 1) head += byte;
      send(peer, answer_.data(), answer_.size(), MSG_NOSIGNAL);
      const linger abort{.l_onoff = 1, .l_linger = 0};
      if (reset_) setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      close(peer);
    }
  }
  LoopbackSocket socket_;
  std::string answer_;
  bool reset_;
  std::atomic<int> connections_{0};
  std::thread thread_;
};

URLRequest get(URL url, double timeout = 60) {
  return {.url = std::move(url), .headers = {}, .body = {}, .timeout = timeout};
}

URLRequest post(URL url, std::string_view body) {
  return {.url = std::move(url),
          .method = "POST",
          .headers = {{"Content-Type", "application/octet-stream"}},
          .body = toBytes(body)};
}

struct LinuxSession : testing::Test {
  Outcome answerTo(URLRequest request) {
    std::promise<Outcome> promise;
    session.send(std::move(request),
                 [&](Outcome outcome) { promise.set_value(std::move(outcome)); });
    return promise.get_future().get();
  }
  std::string textOf(URLRequest request) {
    const auto outcome = answerTo(std::move(request));
    return outcome.error  ? outcome.error->localizedDescription()
           : outcome.data ? std::string(asText(*outcome.data))
                          : "(neither data nor error)";
  }
  URLError errorOf(URLRequest request) {
    const auto outcome = answerTo(std::move(request));
    EXPECT_FALSE(outcome.data);
    if (!outcome.error) return URLError::unknown;
    return static_cast<URLError>(outcome.error->code());
  }
  CurlSession session;
};

TEST_F(LinuxSession, NamesWhatWentWrong) {
  using enum URLError;
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const struct {
    const char* what;
    std::string answer;
    URLError error;
    bool reset = false;
  } servers[] = {
      {"closes without a word", "", networkConnectionLost},
      {"resets", "", networkConnectionLost, true},
      {"cuts the body", ok + "Content-Length: 100\r\n\r\nhalf", networkConnectionLost},
      {"cuts a chunk", ok + "Transfer-Encoding: chunked\r\n\r\n64\r\nhalf", networkConnectionLost},
      {"resets in the body", ok + "Content-Length: 100\r\n\r\nhalf", networkConnectionLost, true},
      {"speaks something else", "220 mail.example ESMTP\r\n", badServerResponse},
      {"lies about gzip", ok + "Content-Encoding: gzip\r\n\r\ntext", cannotDecodeContentData},
      {"goes on after its brotli",
       ok + "Content-Encoding: br\r\n\r\n\x0b\x02\x80hello\x03 and more", cannotDecodeContentData},
      {"sends us to a file", "HTTP/1.1 302 Found\r\nLocation: file:///etc/hostname\r\n\r\n",
       unsupportedURL},
  };
  for (const auto& one : servers) {
    const RawServer server(one.answer, one.reset);
    EXPECT_EQ(errorOf(get(server.url())), one.error) << one.what;
  }
  const bool online = g_network_monitor_get_network_available(g_network_monitor_get_default());
  const std::pair<const char*, URLError> addresses[] = {
      {"http://host.invalid/", online ? cannotFindHost : notConnectedToInternet},
      {"file:///etc/hostname", unsupportedURL},
      {"/init", unsupportedURL},
      {"http:///", badURL},
  };
  for (const auto& [address, error] : addresses)
    EXPECT_EQ(errorOf(get(*URL::parse(address))), error) << address;
}

TEST_F(LinuxSession, TimesOutWithoutProgressButNotWithIt) {
  LoopbackServer server([](httplib::Server& s) {
    s.Get("/drip", [](const auto&, auto& answer) {
      answer.set_content_provider(8, "text/plain", [](auto, auto, httplib::DataSink& sink) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return sink.write("x", 1);
      });
    });
  });
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOf(get(server.url("/never"), 0.3)), URLError::timedOut);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(taken.count(), 0.29);
  EXPECT_EQ(textOf(get(server.url("/drip"), 0.5)), "xxxxxxxx");
}

TEST_F(LinuxSession, CarriesLargeBodiesBothWaysAndUndoesCompression) {
  const std::string large(20 << 20, 'k'), text(1 << 20, 't'), upload(3 << 20, 'u');
  std::atomic<std::size_t> onTheWire{0};
  LoopbackServer server([&](httplib::Server& s) {
    s.Get("/plain", [&](const auto&, auto& answer) { answer.set_content(large, "image/png"); });
    s.Get("/zipped", [&](const auto&, auto& answer) { answer.set_content(text, "text/plain"); });
    s.set_logger([&](const auto&, const auto& answer) { onTheWire = answer.body.size(); });
  });
  EXPECT_TRUE(textOf(get(server.url("/plain"))) == large);
  EXPECT_TRUE(spinMainLoopUntil([&] { return onTheWire == large.size(); }));
  EXPECT_TRUE(textOf(get(server.url("/zipped"))) == text);
  EXPECT_TRUE(spinMainLoopUntil([&] { return onTheWire < text.size() / 10; }));
  EXPECT_TRUE(textOf(post(server.url("/echo"), upload)) == upload);
}

TEST_F(LinuxSession, FollowsRedirectsAsABrowserDoes) {
  LoopbackServer server([](httplib::Server& s) {
    s.Post(R"(/(30\d))", [](const auto& request, auto& answer) {
      answer.set_redirect("/target", std::stoi(request.matches[1]));
    });
    const auto tell = [](const auto& request, auto& answer) {
      answer.set_content(request.method + " " + request.body, "text/plain");
    };
    s.Get("/target", tell);
    s.Post("/target", tell);
    s.Get("/loop", [](const auto&, auto& answer) { answer.set_redirect("/loop"); });
  });
  for (const char* path : {"/301", "/302", "/303"})
    EXPECT_EQ(textOf(post(server.url(path), "body")), "GET ") << path;
  for (const char* path : {"/307", "/308"})
    EXPECT_EQ(textOf(post(server.url(path), "body")), "POST body") << path;
  EXPECT_EQ(errorOf(get(server.url("/loop"))), URLError::httpTooManyRedirects);
}

TEST_F(LinuxSession, KeepsOneConnectionForCallsInTurn) {
  Guarded<std::set<int>> ports;
  LoopbackServer server([&](httplib::Server& s) {
    s.set_logger([&](const auto& request, const auto&) {
      ports.with([&](auto& all) { all.insert(request.remote_port); });
    });
  });
  for (int i = 0; i < 20; ++i) ASSERT_EQ(textOf(get(server.url("/ok"))), "ok");
  EXPECT_EQ(ports.get().size(), 1u);

  // A server may close such a connection at any time; the next call must not suffer.
  const RawServer oneShot("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(textOf(post(oneShot.url(), "")), "ok");
  EXPECT_EQ(oneShot.connections(), 5);
}

TEST_F(LinuxSession, RefusesACertificateThatNobodyVouchesFor) {
  TemporaryFolder folder;
  const auto certificate = folder.path / "cert.pem", key = folder.path / "key.pem";
  const std::string make =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
      " -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1"
      " -keyout " +
      key.native() + " -out " + certificate.native() + " 2>/dev/null";
  if (std::system(make.c_str()) != 0) GTEST_SKIP() << "no openssl command to make a certificate";
  httplib::SSLServer server(certificate.c_str(), key.c_str());
  std::atomic<bool> served{false};
  server.Get("/", [&](const auto&, auto&) { served = true; });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::jthread listening([&] { server.listen_after_bind(); });
  const auto address = "127.0.0.1:" + std::to_string(port) + "/";
  EXPECT_EQ(errorOf(get(*URL::parse("https://" + address))), URLError::serverCertificateUntrusted);
  const RawServer lured("HTTP/1.1 302 Found\r\nLocation: https://" + address + "\r\n\r\n");
  EXPECT_EQ(errorOf(get(lured.url())), URLError::serverCertificateUntrusted);
  const LoopbackServer plain;
  EXPECT_EQ(errorOf(get(*URL::parse("https" + plain.base().substr(4)))),
            URLError::secureConnectionFailed);
  EXPECT_FALSE(served);
  server.stop();
}

TEST_F(LinuxSession, GoesPastTheProxyForThisMachineOnly) {
  const RawServer proxy("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nproxy");
  setenv("http_proxy", proxy.base().c_str(), 1);
  LoopbackServer server;
  EXPECT_EQ(textOf(get(server.url("/ok"))), "ok");
  EXPECT_EQ(textOf(get(*URL::parse("http://host.invalid/"))), "proxy");
  unsetenv("http_proxy");
}

TEST_F(LinuxSession, TimersOfItsThreadRunThereUntilItIsInvalidated) {
  std::atomic<int> fired{0};
  Timer repeating;
  session.send(get(refusingUrl()), [&](Outcome) {
    repeating = session.timers().schedule(0.005, Repeats::yes, [&] {
      EXPECT_TRUE(session.isSessionThread());
      ++fired;
    });
  });
  EXPECT_FALSE(session.isSessionThread());
  ASSERT_TRUE(spinMainLoopUntil([&] { return fired >= 3; }));
  session.invalidate();
  const int before = fired;
  // The thread still answers, so it is not for want of turning that nothing fires.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(errorOf(get(refusingUrl())), URLError::cancelled);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(fired, before);
}

}  // namespace
}  // namespace kva::test
