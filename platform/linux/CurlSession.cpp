#include "platform/linux/CurlSession.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <glib.h>
#include <strings.h>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Guarded.h>

#include "platform/linux/CurlErrors.h"
#include "platform/linux/CurlTransfer.h"
#include "platform/linux/Descriptors.h"
#include "platform/linux/Threads.h"

namespace kva {
namespace {

using Clock = CurlTransfer::Clock;

struct Exchange {
  URLRequest request;
  URLSession::Done done;
};

bool isWeb(const URL& url) {
  const auto scheme = url.scheme().value_or("");
  return strcasecmp(scheme.c_str(), "http") == 0 || strcasecmp(scheme.c_str(), "https") == 0;
}

/// The hosts that bypass the proxy: the environment's list and the loopback addresses.
std::string hostsWithoutProxy() {
  std::string hosts;
  for (const char* name : {"no_proxy", "NO_PROXY"})
    if (const char* value = std::getenv(name); value && hosts.empty()) hosts = value;
  return hosts == "*" ? hosts : hosts + ",localhost,127.0.0.0/8,::1";
}

/// `text` with percent escapes for the characters that a product in User-Agent cannot contain.
std::string productText(const std::string& text) {
  constexpr auto isAllowed = [](char c) {
    return g_ascii_isalnum(c) || std::string_view("!#$&'*+-.^_`|~").find(c) != std::string::npos;
  };
  std::string product;
  for (const char c : text)
    if (isAllowed(c)) {
      product += c;
    } else {
      char escape[4];
      std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned char>(c));
      product += escape;
    }
  return product;
}

std::string userAgent(const HostIdentity& host) {
  std::string text = "Kelvara/" KELVARA_VERSION;
  if (host.bundleId.empty()) return text;
  text += " " + productText(host.bundleId);
  return host.appVersion.empty() ? text : text + "/" + productText(host.appVersion);
}

}  // namespace

class CurlSession::Worker {
 public:
  explicit Worker(const HostIdentity& host) : settings_{userAgent(host), hostsWithoutProxy()} {
    const SocketPairGuard guard;
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 8L);
  }
  ~Worker() { curl_multi_cleanup(multi_); }

  void send(Exchange exchange);
  void invalidate() {
    auto idle = std::make_shared<Semaphore>();
    inbox_.with([&](Inbox& inbox) {
      inbox.invalidated = true;
      inbox.awaitingIdle.push_back(idle);
    });
    wake();
    idle->acquire();
  }
  void dropIdleConnections() {
    inbox_.with([](Inbox& inbox) { inbox.connectionsAreStale = true; });
    wake();
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
    std::vector<std::shared_ptr<Semaphore>> awaitingIdle;
    bool connectionsAreStale = false, invalidated = false, stopped = false;
  };

  Inbox takeInbox();
  void wake() { curl_multi_wakeup(multi_); }
  bool admit(Exchange& exchange);
  void start(Exchange exchange);
  void perform();
  static int beforeResolving(void*, void*, void* self);
  void finishCompleted();
  void finishTimedOut();
  bool cancelEverything(std::vector<Exchange> unsent);
  void finish(CURL* easy, URLSession::Outcome outcome);
  void sleep();

  CURLM* multi_ = nullptr;
  TransferSettings settings_;
  Connections connections_ = makeConnections();
  EasyHandle spareEasy_;  ///< of a transfer that has succeeded, or null
  std::unordered_map<CURL*, std::unique_ptr<CurlTransfer>> transfers_;
  bool hasFinished_ = false;  ///< `finishCompleted` has something to do
  std::optional<SocketPairGuard> resolving_;
  Guarded<Inbox> inbox_;
  TimerQueue timers_{[this] {
    if (ofThisThread() != this) wake();
  }};
};

/// A request from a completion is on its way before the completion returns.
void CurlSession::Worker::send(Exchange exchange) {
  if (!admit(exchange)) return wake();
  start(std::move(exchange));
  perform();
}

/// Whether the request may start now, on this thread. Otherwise the inbox has taken it.
bool CurlSession::Worker::admit(Exchange& exchange) {
  const bool canStart = ofThisThread() == this && isWeb(exchange.request.url);
  return inbox_.with([&](Inbox& inbox) {
    if (!canStart || inbox.invalidated) {
      inbox.exchanges.push_back(std::move(exchange));
      return false;
    }
    if (std::exchange(inbox.connectionsAreStale, false)) connections_ = makeConnections();
    return true;
  });
}

void CurlSession::Worker::run() {
  ofThisThread() = this;
  Inbox news = takeInbox();
  for (; !news.invalidated; news = takeInbox()) {
    if (news.connectionsAreStale) connections_ = makeConnections();
    for (auto& exchange : news.exchanges) start(std::move(exchange));
    perform();
    finishCompleted();
    finishTimedOut();
    timers_.fireDue();
    sleep();
  }
  timers_.close();
  std::vector<std::shared_ptr<Semaphore>> waiting;
  for (;; news = takeInbox()) {
    std::ranges::move(news.awaitingIdle, std::back_inserter(waiting));
    // A completion may send a new request; the session is idle when nothing is left to cancel.
    if (cancelEverything(std::move(news.exchanges))) continue;
    for (auto& one : std::exchange(waiting, {})) one->release();
    if (news.stopped) return;
    sleep();
  }
}

CurlSession::Worker::Inbox CurlSession::Worker::takeInbox() {
  return inbox_.with([](Inbox& inbox) {
    return Inbox{std::exchange(inbox.exchanges, {}), std::exchange(inbox.awaitingIdle, {}),
                 std::exchange(inbox.connectionsAreStale, false), inbox.invalidated, inbox.stopped};
  });
}

void CurlSession::Worker::start(Exchange exchange) {
  if (!isWeb(exchange.request.url)) return exchange.done({{}, urlError(URLError::unsupportedURL)});
  auto transfer = std::make_unique<CurlTransfer>(
      std::move(exchange.request), std::move(exchange.done), connections_,
      spareEasy_ ? std::move(spareEasy_) : makeEasyHandle(settings_));
  CURL* easy = transfer->easy();
  curl_easy_setopt(easy, CURLOPT_RESOLVER_START_DATA, this);
  curl_easy_setopt(easy, CURLOPT_RESOLVER_START_FUNCTION, &beforeResolving);
  curl_multi_add_handle(multi_, easy);
  transfers_.emplace(easy, std::move(transfer));
}

/// libcurl opens a socket pair for each lookup of a name.
int CurlSession::Worker::beforeResolving(void*, void*, void* self) {
  auto& resolving = static_cast<Worker*>(self)->resolving_;
  if (!resolving) resolving.emplace();
  return 0;
}

void CurlSession::Worker::perform() {
  int running = 0;
  curl_multi_perform(multi_, &running);
  if (static_cast<std::size_t>(running) < transfers_.size()) hasFinished_ = true;
  resolving_.reset();
}

/// Leaves the transfers that end meanwhile for the next turn of the loop. Otherwise completions
/// that send requests could keep the thread here.
void CurlSession::Worker::finishCompleted() {
  hasFinished_ = false;
  std::vector<std::pair<CURL*, CURLcode>> completed;
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left))
    if (message->msg == CURLMSG_DONE)
      completed.emplace_back(message->easy_handle, message->data.result);
  for (const auto& [easy, result] : completed) finish(easy, transfers_.at(easy)->outcome(result));
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
  if (outcome.data) spareEasy_ = transfer->takeEasy();
  transfer->finish(std::move(outcome));
}

/// Waits until a socket is ready, a timer or a time-out is due, or `wake` is called.
void CurlSession::Worker::sleep() {
  if (hasFinished_ && !transfers_.empty()) return;
  auto until = Clock::now() + std::chrono::hours(1);
  if (const auto due = timers_.nextDue()) until = std::min(until, *due);
  for (const auto& [easy, transfer] : transfers_) until = std::min(until, transfer->deadline());
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::max<std::int64_t>(left, 0)), nullptr);
}

CurlSession::CurlSession(const HostIdentity& host) {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK) fatal("libcurl could not be initialised");
  worker_ = std::make_unique<Worker>(host);
}

CurlSession::~CurlSession() = default;

void CurlSession::run() { worker_->run(); }

void CurlSession::stop() { worker_->stop(); }

void CurlSession::send(URLRequest request, Done done) {
  worker_->send({std::move(request), std::move(done)});
}

void CurlSession::invalidate() {
  if (isSessionThread()) fatal("the URL session cannot be invalidated on its own thread");
  worker_->invalidate();
}

void CurlSession::dropIdleConnections() { worker_->dropIdleConnections(); }

bool CurlSession::isSessionThread() const { return Worker::ofThisThread() == worker_.get(); }

TimerQueue& CurlSession::timers() { return worker_->timers(); }

}  // namespace kva
