// The URL session against real servers on this machine, well-behaved and not.
#include <platform/linux/CurlSession.h>

#include <atomic>
#include <csignal>
#include <future>
#include <set>

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/base/Guarded.h>
#include <platform/linux/GlibSupport.h>
#include <platform/linux/RouteMonitor.h>
#include <platform/linux/Threads.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

using testing::HasSubstr;
using Outcome = URLSession::Outcome;

/// Reads a request's head from every connection, answers with raw bytes, and closes. Before it
/// closes it sends `tail` for as long as the peer takes it, up to 300 MB.
class RawServer {
 public:
  explicit RawServer(std::string answer, bool reset = false, std::string tail = {})
      : answer_(std::move(answer)), reset_(reset), tail_(std::move(tail)) {
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
  std::string head() const { return head_.get(); }  ///< of the last request

 private:
  void serve() {
    for (int peer; (peer = accept4(socket_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++connections_;
      std::string head;
      char byte;
      while (!head.ends_with("\r\n\r\n") && recv(peer, &byte, 1, 0) == 1) head += byte;
      head_.set(head);
      sendAll(peer, answer_);
      for (std::size_t sent = 0; !tail_.empty() && sent < 300'000'000; sent += tail_.size())
        if (!sendAll(peer, tail_)) break;
      const linger abort{.l_onoff = 1, .l_linger = 0};
      if (reset_) setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      close(peer);
    }
  }
  static bool sendAll(int peer, std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  LoopbackSocket socket_;
  std::string answer_;
  bool reset_;
  std::string tail_;
  Guarded<std::string> head_;
  std::atomic<int> connections_{0};
  std::thread thread_;
};

/// Answers the first request of each connection once there are `size` connections, and closes each
/// at its second one without an answer. Later connections are answered or closed at once.
class BreakingServer {
 public:
  enum class Later { answered, closed };
  BreakingServer(int size, Later later) : size_(size), later_(later) {
    listen(socket_.fd, 64);
    acceptor_ = std::thread([this] {
      for (int peer; (peer = accept4(socket_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        peers_.emplace_back([this, peer, number = ++connections_] { serve(peer, number); });
    });
  }
  ~BreakingServer() {
    shutdown(socket_.fd, SHUT_RDWR);
    acceptor_.join();
    for (auto& peer : peers_) peer.join();
  }
  URL url() const { return socket_.url(); }
  int requests() const { return requests_; }

 private:
  bool readRequest(int peer) {
    std::string text;
    char byte;
    while (!text.ends_with("body"))
      if (recv(peer, &byte, 1, 0) == 1)
        text += byte;
      else
        return false;
    ++requests_;
    return true;
  }
  void serve(int peer, int number) {
    if (readRequest(peer) && (number <= size_ || later_ == Later::answered)) {
      while (connections_ < size_) std::this_thread::yield();
      const std::string_view ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
      send(peer, ok.data(), ok.size(), MSG_NOSIGNAL);
      readRequest(peer);
    }
    close(peer);
  }
  LoopbackSocket socket_;
  int size_;
  Later later_;
  std::atomic<int> connections_{0}, requests_{0};
  std::vector<std::thread> peers_;
  std::thread acceptor_;
};

URLRequest get(URL url, double timeout = 60) {
  return {.url = std::move(url), .headers = {}, .body = {}, .timeout = timeout};
}

std::string gzip(std::size_t zeros) {
  const GObjectPtr<GConverter> compressor(
      G_CONVERTER(g_zlib_compressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP, 9)));
  const std::string plain(zeros, '\0');
  std::string zipped(zeros / 100, '\0');
  gsize read = 0, written = 0;
  g_converter_convert(compressor.get(), plain.data(), plain.size(), zipped.data(), zipped.size(),
                      G_CONVERTER_INPUT_AT_END, &read, &written, nullptr);
  return zipped.substr(0, written);
}

URLRequest post(URL url, std::string_view body) {
  return {.url = std::move(url),
          .method = "POST",
          .headers = {{"Content-Type", "application/octet-stream"}},
          .body = toBytes(body)};
}

struct LinuxSession : testing::Test {
  static Outcome answerTo(CurlSession& session, URLRequest request) {
    std::promise<Outcome> promise;
    session.send(std::move(request),
                 [&](Outcome outcome) { promise.set_value(std::move(outcome)); });
    return promise.get_future().get();
  }
  static std::string textOf(CurlSession& session, URLRequest request) {
    const auto outcome = answerTo(session, std::move(request));
    return outcome.error  ? outcome.error->localizedDescription()
           : outcome.data ? std::string(asText(*outcome.data))
                          : "(neither data nor error)";
  }
  std::string textOf(URLRequest request) { return textOf(session, std::move(request)); }
  URLError errorOf(URLRequest request) {
    const auto outcome = answerTo(session, std::move(request));
    EXPECT_FALSE(outcome.data);
    if (!outcome.error) return URLError::unknown;
    return static_cast<URLError>(outcome.error->code());
  }
  CurlSession session;
};

TEST_F(LinuxSession, NamesWhatWentWrong) {
  using enum URLError;
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  const struct {
    const char* what;
    std::string answer;
    URLError error;
    bool reset = false;
    std::string tail{};
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
      {"sends 80 MB in 80 kB", ok + "Content-Encoding: gzip\r\n\r\n" + gzip(80'000'000),
       cannotDecodeContentData},
      {"never ends its body", chunked, cannotDecodeContentData, false, chunk},
      {"never ends its headers", ok, networkConnectionLost, false,
       "X: " + std::string(50'000, 'x') + "\r\n"},
      {"never ends a redirect", "HTTP/1.1 302 Found\r\nLocation: /\r\n" + chunked.substr(17),
       cannotDecodeContentData, false, chunk},
  };
  for (const auto& one : servers) {
    const RawServer server(one.answer, one.reset, one.tail);
    EXPECT_EQ(errorOf(get(server.url())), one.error) << one.what;
  }
  const bool online = !routesToInternet().empty();
  const std::pair<const char*, URLError> addresses[] = {
      {"http://host.invalid/", online ? cannotFindHost : notConnectedToInternet},
      {"file:///etc/hostname", unsupportedURL},
      {"/init", unsupportedURL},
      {"http:///", badURL},
  };
  for (const auto& [address, error] : addresses)
    EXPECT_EQ(errorOf(get(*URL::parse(address))), error) << address;
}

TEST_F(LinuxSession, TimesOutWithoutEnoughProgress) {
  LoopbackServer server([](httplib::Server& s) {
    s.Get(R"(/drip/(\d+))", [](const auto& request, auto& answer) {
      const std::string drop(std::stoul(request.matches[1]), 'x');
      answer.set_content_provider(drop.size() * 20, "text/plain",
                                  [drop](auto, auto, httplib::DataSink& sink) {
                                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                                    return sink.write(drop.data(), drop.size());
                                  });
    });
  });
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOf(get(server.url("/never"), 0.3)), URLError::timedOut);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(taken.count(), 0.29);
  EXPECT_EQ(textOf(get(server.url("/drip/50"), 1)), std::string(1000, 'x'));
  EXPECT_EQ(errorOf(get(server.url("/drip/1"), 1)), URLError::timedOut);
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

  // One that breaks when the request is there may have carried it out.
  using Later = BreakingServer::Later;
  constexpr int kSize = 6;
  for (const auto& [later, text] :
       {std::pair{Later::answered, "ok"}, {Later::closed, "The network connection was lost."}}) {
    BreakingServer breaking(kSize, later);
    CurlSession one;
    std::atomic<int> answers{0};
    for (int i = 0; i < kSize; ++i)
      one.send(post(breaking.url(), "body"), [&](Outcome) { ++answers; });
    ASSERT_TRUE(spinMainLoopUntil([&] { return answers == kSize; }));
    EXPECT_EQ(textOf(one, post(breaking.url(), "body")), text);
    EXPECT_EQ(breaking.requests(), kSize + 2) << text;
  }
}

TEST_F(LinuxSession, RequestsNameTheSdkAndTheHost) {
  const RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  const std::string sdk = "Kelvara/" + Kelvara::sdkVersion();
  for (const auto& [host, agent] :
       {std::pair{HostIdentity{}, ""},
        {HostIdentity{"org.example.app", {}}, " org.example.app"},
        {HostIdentity{"org.example.app", "2.0 (45)"}, " org.example.app/2.0%20%2845%29"},
        {HostIdentity{"a/b", "1\r\nX: y"}, " a%2Fb/1%0D%0AX%3A%20y"}}) {
    CurlSession one(host);
    EXPECT_EQ(textOf(one, get(server.url())), "ok");
    EXPECT_THAT(server.head(), HasSubstr("\r\nUser-Agent: " + sdk + agent + "\r\n"));
  }
}

TEST_F(LinuxSession, ItsThreadsLeaveSignalsToTheHostButForFaults) {
  const auto mask = [] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return blocked;
  };
  std::promise<sigset_t> promise;
  session.send(get(refusingUrl()), [&](Outcome) { promise.set_value(mask()); });
  const sigset_t blocked = promise.get_future().get();
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
    EXPECT_FALSE(sigismember(&blocked, fault)) << fault;
  for (const int other : {SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGALRM, SIGPIPE})
    EXPECT_TRUE(sigismember(&blocked, other)) << other;

  pthread_attr_t usual, huge;
  pthread_getattr_default_np(&usual);
  pthread_getattr_default_np(&huge);
  pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
  pthread_setattr_default_np(&huge);
  EXPECT_THROW(startThread("kva-refused", [] {}), std::system_error);
  pthread_setattr_default_np(&usual);
  const sigset_t after = mask();
  EXPECT_FALSE(sigismember(&after, SIGTERM)) << "the mask of a caller whose thread was refused";
}

TEST_F(LinuxSession, RefusesACertificateThatNobodyVouchesFor) {
  TemporaryFolder folder;
  const auto certificate = makeCertificate(folder);
  if (!certificate) GTEST_SKIP() << "no openssl command to make a certificate";
  httplib::SSLServer server(certificate->file.c_str(), certificate->key.c_str());
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
