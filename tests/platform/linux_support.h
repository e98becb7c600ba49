#pragma once

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <platform/linux/LazySession.h>
#include <platform/linux/LinuxPlatform.h>
#include <support/MainLoop.h>

namespace kva::test {

struct TemporaryFolder {
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kelvara-XXXXXX").native();
    path = mkdtemp(name.data());
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::filesystem::path path;
};

/// A host with its settings in `folder` and its ads from `apiBase`.
inline LinuxOptions hostOptions(const std::filesystem::path& folder,
                                const std::string& apiBase = {}) {
  LinuxOptions options;
  options.bundleId = "org.example.host";
  options.appVersion = "3.2.1";
  options.userDefaults = folder / "defaults.sqlite";
  options.apiBases = {.production = apiBase, .sandbox = apiBase};
  return options;
}
inline LinuxPlatform launchPlatform(const TemporaryFolder& folder) {
  return makeLinuxPlatform(hostOptions(folder.path));
}

inline URLRequest get(URL url, double timeout = 60) {
  return {.url = std::move(url), .headers = {}, .body = {}, .timeout = timeout};
}
inline URLRequest post(URL url, std::string_view body) {
  return {.url = std::move(url),
          .method = "POST",
          .headers = {{"Content-Type", "application/octet-stream"}},
          .body = toBytes(body)};
}

/// A socket on a port of 127.0.0.1; 0 picks a free one.
struct LoopbackSocket {
  explicit LoopbackSocket(int type = SOCK_STREAM, std::uint16_t port = 0)
      : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  }
  ~LoopbackSocket() { close(fd); }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;
  std::string base() const { return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)); }
  URL url() const { return *URL::parse(base() + "/"); }

  int fd;
  sockaddr_in address{};
};

/// An address that refuses connections: its port is bound and does not listen.
inline URL refusingUrl() {
  static const LoopbackSocket refusing;
  return refusing.url();
}

/// An HTTP server with the paths that the session's contract needs; tests add their own.
class LoopbackServer {
 public:
  using Prepare = std::function<void(httplib::Server&)>;
  explicit LoopbackServer(const Prepare& prepare = nullptr) {
    server_.Get("/ok", [](const auto&, auto& answer) { answer.set_content("ok", "text/plain"); });
    server_.Get("/empty", [](const auto&, auto& answer) { answer.status = 200; });
    server_.Get("/error", [](const auto&, auto& answer) {
      answer.status = 500;
      answer.set_content("broken", "text/plain");
    });
    server_.Post("/echo", [](const auto& request, auto& answer) {
      answer.set_content(request.body, "application/json");
    });
    server_.new_task_queue = [] { return new httplib::ThreadPool(8); };
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_timeout(1);
    server_.set_keep_alive_max_count(1000);
    if (prepare) prepare(server_);
    int listening = -1;
    server_.set_socket_options([&](socket_t fd) { listening = fd; });
    port_ = server_.bind_to_any_port("127.0.0.1");
    listen(listening, 1024);  // httplib's queue of five drops a burst of connections
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    listen(silent_.fd, 64);  // the kernel accepts connections, and nothing answers
  }
  ~LoopbackServer() {
    while (!server_.is_running()) std::this_thread::yield();
    server_.stop();
    thread_.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  URL url(const std::string& path) const {
    return path == "/never" ? silent_.url() : *URL::parse(base() + path);
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  LoopbackSocket silent_;
};

/// Sends requests on `session`, or on another, and names what came of them.
struct SessionTest : testing::Test {
  using Outcome = URLSession::Outcome;

  static std::future<Outcome> send(URLSession& session, URLRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    session.send(std::move(request),
                 [promise](Outcome outcome) { promise->set_value(std::move(outcome)); });
    return promise->get_future();
  }
  static std::string textOf(URLSession& session, URLRequest request) {
    const auto outcome = send(session, std::move(request)).get();
    return outcome.error  ? outcome.error->localizedDescription()
           : outcome.data ? std::string(asText(*outcome.data))
                          : "(neither data nor error)";
  }
  std::string textOf(URLRequest request) { return textOf(session, std::move(request)); }
  static URLError errorOf(std::future<Outcome> future) {
    const auto outcome = future.get();
    EXPECT_FALSE(outcome.data);
    return outcome.error ? static_cast<URLError>(outcome.error->code()) : URLError::unknown;
  }
  URLError errorOf(URLRequest request) { return errorOf(send(session, std::move(request))); }

  LazySession session{{}, nullptr};
};

/// Runs the ip command. A failure fails the test.
inline void ip(const std::string& arguments) {
  EXPECT_EQ(std::system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
}

/// Makes a link with a default route, without IPv6.
inline void makeLink() {
  std::ofstream("/proc/sys/net/ipv6/conf/all/disable_ipv6") << "1";
  for (const char* step : {"link set lo up", "link add outside type veth peer name inside",
                           "link set inside up", "address add 192.0.2.2/24 dev outside",
                           "link set outside up", "route add default via 192.0.2.1"})
    ip(step);
}

/// True in a process with a network that has only its loopback, and with mounts of its own.
/// Elsewhere, runs the calling test again in such a process, and returns false.
inline bool isInNamespaceOfItsOwn() {
  if (std::getenv("KELVARA_TEST_NAMESPACE")) return true;
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  const pid_t child = fork();
  if (child == 0) {
    constexpr int kOwn = CLONE_NEWNET | CLONE_NEWNS;
    if ((unshare(kOwn) != 0 && unshare(CLONE_NEWUSER | kOwn) != 0) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      _exit(77);
    setenv("KELVARA_TEST_NAMESPACE", "1", 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    execl("/proc/self/exe", "tests", "--gtest_brief=1", filter.c_str(), nullptr);
    _exit(78);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    [] { GTEST_SKIP() << "namespaces are refused here"; }();
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "it failed in the namespace";
  }
  return false;
}

}  // namespace kva::test
