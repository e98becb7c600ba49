// The URL session against correct and faulty servers on loopback.
#include <csignal>

#include <gmock/gmock.h>

#include <Kelvara/Kelvara.h>
#include <platform/linux/RouteMonitor.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

/// Accepts connections on loopback and serves each on a thread; closes it when `serve` returns.
class SocketServer {
 public:
  using Serve = std::function<void(int peer, int number)>;  ///< `number` counts connections from 1
  explicit SocketServer(Serve serve) {
    listen(socket_.fd, 64);
    acceptor_ = std::thread([this, serve = std::move(serve)] {
      for (int peer; (peer = accept4(socket_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        peers_.emplace_back([serve, peer, number = ++connections_] {
          serve(peer, number);
          close(peer);
        });
    });
  }
  ~SocketServer() {
    shutdown(socket_.fd, SHUT_RDWR);
    acceptor_.join();
  }
  URL url() const { return socket_.url(); }
  std::string base() const { return socket_.base(); }
  int connections() const { return connections_; }

  /// Reads up to and including `end`; shorter if the peer closes.
  static std::string readUntil(int peer, std::string_view end) {
    std::string text;
    for (char byte; !text.ends_with(end) && recv(peer, &byte, 1, 0) == 1;) text += byte;
    return text;
  }
  static bool sendAll(int peer, std::string_view bytes) {
    return send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL) == std::ssize(bytes);
  }

 private:
  LoopbackSocket socket_;
  std::atomic<int> connections_{0};
  std::vector<std::jthread> peers_;
  std::thread acceptor_;
};

/// Reads a request and answers it with raw bytes.
SocketServer::Serve answering(const std::string& answer) {
  return [answer](int peer, int) {
    SocketServer::readUntil(peer, "\r\n\r\n");
    SocketServer::sendAll(peer, answer);
  };
}

/// Repeats `tail` after the answer until the peer closes, up to 300 MB.
SocketServer::Serve endless(const std::string& answer, const std::string& tail) {
  return [=](int peer, int) {
    answering(answer)(peer, 0);
    for (std::size_t sent = 0; sent < 300'000'000; sent += tail.size())
      if (!SocketServer::sendAll(peer, tail)) break;
  };
}

void reset(int peer, int) {
  SocketServer::readUntil(peer, "\r\n\r\n");
  const linger abort{.l_onoff = 1, .l_linger = 0};
  setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

using LinuxSession = SessionTest;

TEST_F(LinuxSession, NamesWhatWentWrong) {
  using enum URLError;
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  const std::tuple<const char*, SocketServer::Serve, URLError> servers[] = {
      {"closes without an answer", answering(""), networkConnectionLost},
      {"resets", reset, networkConnectionLost},
      {"cuts the body", answering(ok + "Content-Length: 100\r\n\r\nhalf"), networkConnectionLost},
      {"speaks something else", answering("220 mail.example ESMTP\r\n"), badServerResponse},
      {"lies about gzip", answering(ok + "Content-Encoding: gzip\r\n\r\ntext"),
       cannotDecodeContentData},
      {"continues after its brotli stream",
       answering(ok + "Content-Encoding: br\r\n\r\n\x0b\x02\x80hello\x03 and more"),
       cannotDecodeContentData},
      {"redirects to a file",
       answering("HTTP/1.1 302 Found\r\nLocation: file:///etc/hostname\r\n\r\n"), unsupportedURL},
      {"redirects to itself", answering("HTTP/1.1 302 Found\r\nLocation: /\r\n\r\n"),
       httpTooManyRedirects},
      {"never ends its body", endless(chunked, chunk), cannotDecodeContentData},
      {"never ends its headers", endless(ok, "X: " + std::string(50'000, 'x') + "\r\n"),
       networkConnectionLost},
      {"never ends a redirect",
       endless("HTTP/1.1 302 Found\r\nLocation: /\r\n" + chunked.substr(17), chunk),
       cannotDecodeContentData},
  };
  for (const auto& [what, serve, error] : servers) {
    const SocketServer server(serve);
    EXPECT_EQ(errorOf(get(server.url())), error) << what;
  }
  const LoopbackServer compressing([](httplib::Server& s) {
    s.Get("/bomb", [](const auto&, auto& answer) {
      answer.set_content(std::string(80'000'000, 'x'), "text/plain");
    });
  });
  EXPECT_EQ(errorOf(get(compressing.url("/bomb"))), cannotDecodeContentData);
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
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(290));
  EXPECT_EQ(textOf(get(server.url("/drip/50"), 1)), std::string(1000, 'x'));
  EXPECT_EQ(errorOf(get(server.url("/drip/1"), 1)), URLError::timedOut);
}

TEST_F(LinuxSession, FollowsRedirectsLikeABrowserAndInheritsNothingFromTheLastRequest) {
  LoopbackServer server([](httplib::Server& s) {
    s.Post(R"(/(30\d))", [](const auto& request, auto& answer) {
      answer.set_redirect("/", std::stoi(request.matches[1]));
    });
    const auto seen = [](const auto& request, auto& answer) {
      answer.set_content(request.method + request.get_header_value("Content-Type") + request.body,
                         "text/plain");
    };
    s.Get("/", seen).Post("/", seen);
  });
  // A redirect that drops the body keeps the request's header fields.
  const std::string type = "application/octet-stream", posted = "POST" + type;
  for (const auto& [path, answer] :
       {std::pair{"/302", "GET" + type}, {"/303", "GET" + type}, {"/307", posted + "body"}})
    EXPECT_EQ(textOf(post(server.url(path), "body")), answer) << path;
  for (const auto& body : {std::string(20 << 20, 'k'), std::string(), std::string("body")}) {
    EXPECT_TRUE(textOf(post(server.url("/"), body)) == posted + body) << body.size();
    EXPECT_EQ(textOf(get(server.url("/"))), "GET") << "after a body of " << body.size();
  }
}

TEST_F(LinuxSession, RetriesOnceWhenAKeepAliveConnectionCloses) {
  // A server may close a keep-alive connection at any time; the next request must not fail.
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  const SocketServer oneShot(answering(ok));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(textOf(post(oneShot.url(), "")), "ok");
  EXPECT_EQ(oneShot.connections(), 5);

  // A server that closes after it has read a request may have processed it, so retry only once.
  constexpr int kSize = 6;
  for (const bool laterAreAnswered : {true, false}) {
    std::atomic<int> open{0}, requests{0}, answers{0};
    const auto readRequest = [&](int peer) {
      const bool isWhole = SocketServer::readUntil(peer, "body").ends_with("body");
      if (isWhole) ++requests;
      return isWhole;
    };
    SocketServer breaking([&](int peer, int number) {
      ++open;
      if (!readRequest(peer) || (number > kSize && !laterAreAnswered)) return;
      while (open < kSize) std::this_thread::yield();
      SocketServer::sendAll(peer, ok);
      readRequest(peer);  // and close without an answer
    });
    LazySession one({}, nullptr);
    for (int i = 0; i < kSize; ++i)
      one.send(post(breaking.url(), "body"), [&](Outcome) { ++answers; });
    ASSERT_TRUE(spinUntil([&] { return answers == kSize; }));
    EXPECT_EQ(textOf(one, post(breaking.url(), "body")),
              laterAreAnswered ? "ok" : "The network connection was lost. Retry.");
    EXPECT_EQ(requests, kSize + 2) << laterAreAnswered;
  }
}

TEST_F(LinuxSession, ARequestOfACompletionStartsAtOnceAndAChainLeavesRoomForOthers) {
  std::promise<void> arrived;
  LoopbackServer server([&](httplib::Server& s) {
    s.Get("/next", [&](const auto&, auto&) { arrived.set_value(); });
  });
  std::promise<bool> isEarly;
  session.send(get(server.url("/ok")), [&](Outcome) {
    session.send(get(server.url("/next")), [](Outcome) {});
    isEarly.set_value(arrived.get_future().wait_for(std::chrono::seconds(10)) ==
                      std::future_status::ready);
  });
  EXPECT_TRUE(isEarly.get_future().get());

  // These fail as soon as they start: the first from a timer, then in an endless chain.
  const URL bad = *URL::parse("http:///");
  std::atomic<int> refused{0}, fired{0};
  std::atomic<bool> ends{false};
  std::function<void(Outcome)> again = [&](const Outcome&) {
    ++refused;
    if (!ends) session.send(get(bad), again);
  };
  const Timer once =
      session.timers().schedule(0.001, Repeats::no, [&] { session.send(get(bad), again); });
  const Timer repeating = session.timers().schedule(0.005, Repeats::yes, [&] {
    EXPECT_TRUE(session.isSessionThread());
    ++fired;
  });
  EXPECT_FALSE(session.isSessionThread());
  EXPECT_TRUE(spinUntil([&] { return refused > 10 && fired >= 3; }));
  EXPECT_EQ(textOf(get(server.url("/ok"))), "ok");

  ends = true;
  session.invalidate();
  const int before = fired;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(errorOf(get(bad)), URLError::cancelled) << "the thread still answers";
  }
  EXPECT_EQ(fired, before) << "invalidation stops the timers";
}

TEST_F(LinuxSession, UserAgentNamesTheSdkAndTheHost) {
  const SocketServer echo([](int peer, int) {
    const auto head = SocketServer::readUntil(peer, "\r\n\r\n");
    SocketServer::sendAll(peer, "HTTP/1.1 200 OK\r\n\r\n" + head);
  });
  for (const auto& [host, agent] :
       {std::pair{HostIdentity{}, ""},
        {HostIdentity{"org.example.app", {}}, " org.example.app"},
        {HostIdentity{"org.example.app", "2.0 (45)"}, " org.example.app/2.0%20%2845%29"},
        {HostIdentity{"a/b", "1\r\nX: y"}, " a%2Fb/1%0D%0AX%3A%20y"}}) {
    LazySession one(host, nullptr);
    EXPECT_THAT(
        textOf(one, get(echo.url())),
        testing::HasSubstr("\r\nUser-Agent: Kelvara/" + Kelvara::sdkVersion() + agent + "\r\n"));
  }
}

TEST_F(LinuxSession, ItsThreadsBlockAllSignalsButFaults) {
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

TEST_F(LinuxSession, BypassesTheProxyForLoopbackOnly) {
  const SocketServer proxy(answering("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nproxy"));
  setenv("http_proxy", proxy.base().c_str(), 1);
  LoopbackServer server;
  EXPECT_EQ(textOf(get(server.url("/ok"))), "ok");
  EXPECT_EQ(textOf(get(*URL::parse("http://host.invalid/"))), "proxy");
  unsetenv("http_proxy");
}

}  // namespace
}  // namespace kva::test
