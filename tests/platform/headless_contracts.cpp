// The headless platform keeps the promises of every port.
#include <string>

#include <platform/contract/ClockContract.h>
#include <platform/contract/LocaleContract.h>
#include <platform/contract/QueueContract.h>
#include <platform/contract/ReachabilityContract.h>
#include <platform/contract/RunLoopContract.h>
#include <platform/contract/URLSessionContract.h>
#include <platform/contract/UserDefaultsContract.h>
#include <platform/headless/Headless.h>

namespace kva::test {
namespace {

using namespace headless;

struct Subject {
  bool spinUntil(const std::function<bool()>& done) { return h.time.runUntil(done); }
  Headless h;
};

struct Defaults {
  UserDefaults& store() { return store_; }
  void reopen() { store_ = MemoryUserDefaults(store_); }
  MemoryUserDefaults store_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, UserDefaultsContract, Defaults);

struct Session : Subject {
  static constexpr bool kOwnThread = false;
  Session() {
    h.server.reply("/ok", "ok");
    h.server.reply("/empty", "");
    h.server.reply("/error", "broken");
    h.server.reply("/never", "", Server::kNever);
    h.server.reply(
        "/echo", [](const SentRequest& request) { return answer(request.body.value_or("")); }, 0.1);
  }
  ~Session() { session().invalidate(); }
  URLSession& session() { return *session_; }
  URL url(const std::string& path) { return *URL::parse(h.apiBases.production + path); }
  std::shared_ptr<URLSession> session_ = h.platform().urlSession;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, URLSessionContract, Session);

struct Main : Subject {
  MainQueue& queue() { return *queue_; }
  void destroyQueue() { queue_.reset(); }
  std::unique_ptr<HeadlessMainQueue> queue_ = std::make_unique<HeadlessMainQueue>(h.time);
};
INSTANTIATE_TYPED_TEST_SUITE_P(HeadlessMain, QueueContract, Main);
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, MainQueueContract, Main);

struct Serial : Subject {
  SerialQueue& queue() { return *queue_; }
  std::shared_ptr<SerialQueue> queue_ = h.reachability.makeSerialQueue("org.example.queue");
};
INSTANTIATE_TYPED_TEST_SUITE_P(HeadlessSerial, QueueContract, Serial);
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, SerialQueueContract, Serial);

struct Loop : Subject {
  RunLoop& runLoop() { return h.time; }
  void holdUp(double seconds) { h.time.stall(seconds); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, RunLoopContract, Loop);

struct Wall : Subject {
  Clock& clock() { return h.time; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, ClockContract, Wall);

struct Speech : Subject {
  Locale& locale() { return h.locale; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, LocaleContract, Speech);

struct Network : Subject {
  ReachabilityService& service() { return h.reachability; }
  void setReachable(bool reachable) {
    h.reachability.setFlags(reachable ? HeadlessReachability::kReachable : 0);
  }
};
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, ReachabilityContract, Network);
INSTANTIATE_TYPED_TEST_SUITE_P(Headless, ReachabilityChangeContract, Network);

}  // namespace
}  // namespace kva::test
