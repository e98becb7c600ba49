// The Linux adapters keep the promises of every port.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <platform/contract/ClockContract.h>
#include <platform/contract/LocaleContract.h>
#include <platform/contract/QueueContract.h>
#include <platform/contract/ReachabilityContract.h>
#include <platform/contract/RunLoopContract.h>
#include <platform/contract/URLSessionContract.h>
#include <platform/contract/UserDefaultsContract.h>
#include <platform/linux/CurlSession.h>
#include <platform/linux/HostFacts.h>
#include <platform/linux/LinuxRunLoop.h>
#include <platform/linux/NetworkReachability.h>
#include <platform/linux/SqliteDefaults.h>
#include <platform/linux_support.h>

namespace kva::test {
namespace {

struct Subject {
  bool spinUntil(const std::function<bool()>& done) { return spinMainLoopUntil(done); }
};

struct Defaults {
  UserDefaults& store() { return *store_; }
  void reopen() {
    store_.reset();
    store_ = open();
  }
  std::unique_ptr<SqliteDefaults> open() {
    return std::make_unique<SqliteDefaults>(
        folder_.path / "defaults.sqlite",
        [](const std::string& line) { ADD_FAILURE() << "logged: " << line; });
  }
  TemporaryFolder folder_;
  std::unique_ptr<SqliteDefaults> store_ = open();
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, UserDefaultsContract, Defaults);

struct Session : Subject {
  static constexpr bool kOwnThread = true;
  URLSession& session() { return session_; }
  URL url(const std::string& path) {
    return path == "/refused" ? refusingUrl() : server_.url(path);
  }
  LoopbackServer server_;
  CurlSession session_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, URLSessionContract, Session);

struct Main : Subject {
  MainQueue& queue() { return *queue_; }
  void destroyQueue() { queue_.reset(); }
  std::unique_ptr<MainLoop> queue_ = std::make_unique<MainLoop>();
};
INSTANTIATE_TYPED_TEST_SUITE_P(LinuxMain, QueueContract, Main);
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, MainQueueContract, Main);

struct Serial : Subject {
  SerialQueue& queue() { return queue_; }
  ThreadQueue queue_{"queue"};
};
INSTANTIATE_TYPED_TEST_SUITE_P(LinuxSerial, QueueContract, Serial);
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, SerialQueueContract, Serial);

struct Loop : Subject {
  RunLoop& runLoop() { return loop_; }
  void holdUp(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
  LinuxRunLoop loop_{std::make_shared<MainLoop>(), std::make_shared<CurlSession>()};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, RunLoopContract, Loop);

struct Wall {
  Clock& clock() { return clock_; }
  LinuxClock clock_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, ClockContract, Wall);

struct Speech {
  Locale& locale() { return locale_; }
  LinuxLocale locale_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, LocaleContract, Speech);

struct Network : Subject {
  ReachabilityService& service() { return service_; }
  SystemBus bus_;
  NetworkReachability service_{ReachabilityPolicy::followSystem, bus_};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, ReachabilityContract, Network);

}  // namespace
}  // namespace kva::test
