#include "platform/linux/CurlSession.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <strings.h>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Guarded.h>

#include "platform/linux/CurlErrors.h"
#include "platform/linux/Threads.h"

namespace kva {
namespace {

using Clock = std::chrono::steady_clock;

struct EasyCleanup {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct HeadersCleanup {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Exchange {
  URLRequest request;
  URLSession::Done done;
};

/// One exchange on its way.
struct Transfer {
  explicit Transfer(Exchange what) : exchange(std::move(what)) {}

  Exchange exchange;
  std::unique_ptr<CURL, EasyCleanup> easy;
  std::unique_ptr<curl_slist, HeadersCleanup> headers;
  Bytes received;
  curl_off_t moved = 0;  ///< bytes in both directions
  Clock::time_point lastProgress = Clock::now();

  Clock::time_point deadline() const {
    // Clamped, so that an absurd time-out stays within what the clock can hold.
    const double seconds = std::clamp(exchange.request.timeout, 0.0, 1e8);
    return lastProgress +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }
};

std::size_t receive(char* bytes, std::size_t, std::size_t size, void* transfer) {
  auto& received = static_cast<Transfer*>(transfer)->received;
  const auto* begin = reinterpret_cast<const std::byte*>(bytes);
  received.insert(received.end(), begin, begin + size);
  return size;
}

int noteProgress(void* data, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  auto& transfer = *static_cast<Transfer*>(data);
  if (std::exchange(transfer.moved, down + up) != down + up) transfer.lastProgress = Clock::now();
  return 0;
}

/// The environment's list of hosts without a proxy, and this machine.
std::string hostsWithoutProxy() {
  std::string hosts;
  for (const char* name : {"no_proxy", "NO_PROXY"})
    if (const char* value = std::getenv(name); value && hosts.empty()) hosts = value;
  return hosts == "*" ? hosts : hosts + ",localhost,127.0.0.0/8,::1";
}

void setMethodAndBody(CURL* easy, const URLRequest& request) {
  const bool posts = request.method == "POST";
  if (request.body || posts) {
    const std::string_view body = request.body ? asText(*request.body) : "";
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.empty() ? "" : body.data());
  }
  // Named only where libcurl would choose another: a method that is named survives redirects.
  if (request.method == "HEAD")
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  else if (!posts && (request.method != "GET" || request.body))
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
}

curl_slist* headerList(const URLRequest& request) {
  // A large body goes out at once, without asking first whether it is welcome.
  curl_slist* list = curl_slist_append(nullptr, "Expect:");
  for (const auto& [name, value] : request.headers)
    list = curl_slist_append(list, (value.empty() ? name + ";" : name + ": " + value).c_str());
  return list;
}

}  // namespace

class CurlSession::Worker {
 public:
  Worker() : multi_(curl_multi_init()), hostsWithoutProxy_(hostsWithoutProxy()) {
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 8L);
  }
  ~Worker() { curl_multi_cleanup(multi_); }

  void send(Exchange exchange) {
    inbox_.with([&](Inbox& inbox) { inbox.exchanges.push_back(std::move(exchange)); });
    wake();
  }
  void invalidate() {
    auto still = std::make_shared<Semaphore>();
    inbox_.with([&](Inbox& inbox) {
      inbox.invalidated = true;
      inbox.awaitingStillness.push_back(still);
    });
    wake();
    still->acquire();
  }
  void stop() {
    inbox_.with([](Inbox& inbox) { inbox.stopped = true; });
    wake();
  }

  void run();
  static const Worker*& ofThisThread() {
    thread_local const Worker* worker = nullptr;
    return worker;
  }
  TimerQueue& timers() { return timers_; }

 private:
  struct Inbox {
    std::vector<Exchange> exchanges;
    std::vector<std::shared_ptr<Semaphore>> awaitingStillness;
    bool invalidated = false, stopped = false;
  };

  Inbox takeInbox();
  void wake() { curl_multi_wakeup(multi_); }
  void start(Exchange exchange);
  void configure(Transfer& transfer);
  void finishCompleted();
  void finishTimedOut();
  bool cancelEverything(std::vector<Exchange> unsent);
  void finish(CURL* easy, URLSession::Outcome outcome);
  void sleep();

  CURLM* multi_;
  std::string hostsWithoutProxy_;
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> transfers_;
  Guarded<Inbox> inbox_;
  TimerQueue timers_{[this] {
    if (ofThisThread() != this) wake();
  }};
};

void CurlSession::Worker::run() {
  ofThisThread() = this;
  Inbox news = takeInbox();
  for (; !news.invalidated; news = takeInbox()) {
    for (auto& exchange : news.exchanges) start(std::move(exchange));
    int running = 0;
    curl_multi_perform(multi_, &running);
    finishCompleted();
    finishTimedOut();
    timers_.fireDue();
    sleep();
  }
  timers_.close();
  std::vector<std::shared_ptr<Semaphore>> waiting;
  for (;; news = takeInbox()) {
    std::ranges::move(news.awaitingStillness, std::back_inserter(waiting));
    // Completions may have sent again: still is only who finds nothing.
    if (cancelEverything(std::move(news.exchanges))) continue;
    for (auto& one : std::exchange(waiting, {})) one->release();
    if (news.stopped) return;
    sleep();
  }
}

CurlSession::Worker::Inbox CurlSession::Worker::takeInbox() {
  return inbox_.with([](Inbox& inbox) {
    return Inbox{std::exchange(inbox.exchanges, {}), std::exchange(inbox.awaitingStillness, {}),
                 inbox.invalidated, inbox.stopped};
  });
}

void CurlSession::Worker::start(Exchange exchange) {
  const auto scheme = exchange.request.url.scheme().value_or("");
  if (strcasecmp(scheme.c_str(), "http") != 0 && strcasecmp(scheme.c_str(), "https") != 0)
    return exchange.done({{}, urlError(URLError::unsupportedURL)});
  auto transfer = std::make_unique<Transfer>(std::move(exchange));
  transfer->easy.reset(curl_easy_init());
  configure(*transfer);
  CURL* easy = transfer->easy.get();
  curl_multi_add_handle(multi_, easy);
  transfers_.emplace(easy, std::move(transfer));
}

void CurlSession::Worker::configure(Transfer& transfer) {
  CURL* easy = transfer.easy.get();
  const URLRequest& request = transfer.exchange.request;
  const auto set = [easy](CURLoption option, auto value) { curl_easy_setopt(easy, option, value); };
  set(CURLOPT_URL, request.url.absoluteString().c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  setMethodAndBody(easy, request);
  transfer.headers.reset(headerList(request));
  set(CURLOPT_HTTPHEADER, transfer.headers.get());

  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_MAXREDIRS, 20L);
  set(CURLOPT_ACCEPT_ENCODING, "");  // all that libcurl can undo
  set(CURLOPT_NOPROXY, hostsWithoutProxy_.c_str());
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);

  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, &transfer);
  set(CURLOPT_XFERINFOFUNCTION, &noteProgress);
  set(CURLOPT_XFERINFODATA, &transfer);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_NOSIGNAL, 1L);
  // A name server that does not answer must not hold up the thread when its asker gives up.
  set(CURLOPT_QUICK_EXIT, 1L);
}

void CurlSession::Worker::finishCompleted() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* easy = message->easy_handle;
    if (message->data.result == CURLE_OK)
      finish(easy, {std::move(transfers_.at(easy)->received), std::nullopt});
    else
      finish(easy, {std::nullopt, urlError(urlErrorOf(easy, message->data.result))});
  }
}

void CurlSession::Worker::finishTimedOut() {
  std::vector<CURL*> late;
  const auto now = Clock::now();
  for (const auto& [easy, transfer] : transfers_)
    if (transfer->deadline() <= now) late.push_back(easy);
  for (CURL* easy : late) finish(easy, {std::nullopt, urlError(URLError::timedOut)});
}

/// False when there was nothing to cancel.
bool CurlSession::Worker::cancelEverything(std::vector<Exchange> unsent) {
  if (unsent.empty() && transfers_.empty()) return false;
  const URLSession::Outcome cancelled{std::nullopt, urlError(URLError::cancelled)};
  while (!transfers_.empty()) finish(transfers_.begin()->first, cancelled);
  for (auto& exchange : unsent) exchange.done(cancelled);
  return true;
}

void CurlSession::Worker::finish(CURL* easy, URLSession::Outcome outcome) {
  auto transfer = std::move(transfers_.extract(easy).mapped());
  curl_multi_remove_handle(multi_, easy);
  transfer->exchange.done(std::move(outcome));
}

/// Until a socket has news, a timer or a time-out is due, or `wake`.
void CurlSession::Worker::sleep() {
  auto until = Clock::now() + std::chrono::hours(1);
  if (const auto due = timers_.nextDue()) until = std::min(until, *due);
  for (const auto& [easy, transfer] : transfers_) until = std::min(until, transfer->deadline());
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::max<std::int64_t>(left, 0)), nullptr);
}

CurlSession::CurlSession() {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK) fatal("libcurl could not be initialised");
  worker_ = std::make_unique<Worker>();
  thread_ = startThread("kva-session", [worker = worker_.get()] { worker->run(); });
}

CurlSession::~CurlSession() {
  invalidate();
  worker_->stop();
  thread_.join();
}

void CurlSession::send(URLRequest request, Done done) {
  worker_->send({std::move(request), std::move(done)});
}

void CurlSession::invalidate() {
  if (isSessionThread()) fatal("the URL session cannot be invalidated on its own thread");
  worker_->invalidate();
}

bool CurlSession::isSessionThread() const { return Worker::ofThisThread() == worker_.get(); }

TimerQueue& CurlSession::timers() { return worker_->timers(); }

}  // namespace kva
