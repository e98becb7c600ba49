#pragma once

#include <platform/headless/Headless.h>
#include <platform/linux/SqliteDefaults.h>
#include <platform/linux_support.h>

namespace kva::test {

// The platforms that the ports' contracts run on. The server answers "/ok" with "ok", "/echo" with
// the request's body, "/empty" with an empty body, and "/error" with status 500 and "broken". It
// never answers "/never". The port of "/refused" refuses connections.

struct Headless {
  static constexpr const char* kName = "Headless";
  static constexpr bool kSessionHasAThread = false;

  Headless() {
    for (const auto& [path, body] : {std::pair{"/ok", "ok"}, {"/empty", ""}, {"/error", "broken"}})
      h.server.reply(path, body);
    h.server.reply("/never", "", headless::Server::kNever);
    h.server.reply(
        "/echo", [](const auto& request) { return headless::answer(*request.body); }, 0.1);
  }
  URL url(const std::string& path) { return *URL::parse(h.apiBases.production + path); }
  bool spinUntil(const std::function<bool()>& done) { return h.time.runUntil(done); }
  /// Time passes while the loop is blocked.
  void holdUp(double seconds) { h.time.stall(seconds); }
  /// The process ends and starts again.
  void restart() {
    ports.urlSession->invalidate();
    ports = h.platform();
  }
  /// The user defaults of another process of the application.
  std::shared_ptr<UserDefaults> defaultsElsewhere() {
    return std::make_shared<headless::MemoryUserDefaults>(h.defaults);
  }
  static bool canChangeTheNetwork() { return true; }
  /// Adds or removes the route to the Internet.
  void setReachable(bool reachable) {
    h.reachability.setFlags(reachable ? headless::HeadlessReachability::kReachable : 0);
  }

  headless::Headless h;
  Platform ports = h.platform();
};

struct Linux {
  static constexpr const char* kName = "Linux";
  static constexpr bool kSessionHasAThread = true;

  URL url(const std::string& path) { return path == "/refused" ? refusingUrl() : server.url(path); }
  bool spinUntil(const std::function<bool()>& done) { return test::spinUntil(done); }
  void holdUp(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
  void restart() {
    ports = {};
    ports = launchPlatform(folder).ports;
  }
  std::shared_ptr<UserDefaults> defaultsElsewhere() {
    return std::make_shared<SqliteDefaults>(folder.path / "defaults.sqlite",
                                            [](const std::string& line) { ADD_FAILURE() << line; });
  }
  static bool canChangeTheNetwork() { return isInNamespaceOfItsOwn(); }
  void setReachable(bool reachable) {
    if (!std::exchange(hasLink, true)) makeLink();
    ip(std::string("link set outside ") + (reachable ? "up" : "down"));
    if (reachable) ip("route replace default via 192.0.2.1");
  }

  bool hasLink = false;
  TemporaryFolder folder;
  LoopbackServer server{[](httplib::Server& s) { s.set_keep_alive_max_count(1); }};
  Platform ports = launchPlatform(folder).ports;
};

/// The base of a port's contract. The calls of the port leave notes, on any thread.
template <class Subject>
struct Contract : testing::Test {
  void note(const std::string& what) {
    notes.with([&](auto& all) { all.push_back(what); });
  }
  bool waitForNotes(std::size_t count) {
    return subject.spinUntil([&] { return notes.get().size() >= count; });
  }
  Guarded<std::vector<std::string>> notes;
  Subject subject;
};

/// The suffixes of the suites' names.
struct SubjectNames {
  template <class Subject>
  static const char* GetName(int) {
    return Subject::kName;
  }
};
using Subjects = testing::Types<Headless, Linux>;

}  // namespace kva::test
