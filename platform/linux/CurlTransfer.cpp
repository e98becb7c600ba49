#include "platform/linux/CurlTransfer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>

#include "platform/linux/CurlErrors.h"

namespace kva {
namespace {

constexpr std::size_t kLargestAnswer = 64 << 20;
constexpr double kLeastBytesPerSecond = 100;

template <class T>
T info(CURL* easy, CURLINFO what) {
  T value{};
  curl_easy_getinfo(easy, what, &value);
  return value;
}

/// Makes the kernel close a connection within ten seconds after its peer disappears: it probes an
/// idle connection, and limits how long sent bytes stay unacknowledged.
void noticeDeadPeers(int fd) {
  const auto set = [fd](int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 3);  // seconds; three lost probes close it
  set(IPPROTO_TCP, TCP_KEEPINTVL, 3);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, 8000);  // milliseconds
}

curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) {
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  if (address->socktype == SOCK_STREAM) noticeDeadPeers(fd);
  return fd;
}

}  // namespace

Connections makeConnections() {
  Connections made(curl_share_init(), curl_share_cleanup);
  curl_share_setopt(made.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
  return made;
}

EasyHandle makeEasyHandle(const TransferSettings& settings) {
  EasyHandle easy(curl_easy_init());
  const auto set = [&](CURLoption option, auto value) {
    curl_easy_setopt(easy.get(), option, value);
  };
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_USERAGENT, settings.userAgent.c_str());
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, 20L);
  set(CURLOPT_ACCEPT_ENCODING, "");  // every encoding that libcurl supports
  set(CURLOPT_NOPROXY, settings.hostsWithoutProxy.c_str());
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_NOSIGNAL, 1L);
  // Without it, removing a timed-out transfer blocks until its name server answers.
  set(CURLOPT_QUICK_EXIT, 1L);
  return easy;
}

CurlTransfer::CurlTransfer(URLRequest request, URLSession::Done done, Connections connections,
                           EasyHandle easy)
    : request_(std::move(request)),
      done_(std::move(done)),
      connections_(std::move(connections)),
      easy_(std::move(easy)) {
  const auto set = [this](CURLoption option, auto value) {
    curl_easy_setopt(easy_.get(), option, value);
  };
  set(CURLOPT_SHARE, connections_.get());
  set(CURLOPT_URL, request_.url.absoluteString().c_str());
  setMethodAndBody();
  setHeaders();
  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_XFERINFOFUNCTION, &noteProgress);
  set(CURLOPT_XFERINFODATA, this);
  set(CURLOPT_PREREQFUNCTION, &beforeSending);
  set(CURLOPT_PREREQDATA, this);
  // `beforeSending` changes these.
  set(CURLOPT_FRESH_CONNECT, 0L);
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
}

EasyHandle CurlTransfer::takeEasy() {
  // The connections cannot close while a handle refers to them.
  curl_easy_setopt(easy(), CURLOPT_SHARE, nullptr);
  return std::move(easy_);
}

void CurlTransfer::setMethodAndBody() {
  curl_easy_setopt(easy(), CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(easy(), CURLOPT_CUSTOMREQUEST, nullptr);
  const bool posts = request_.method == "POST";
  if (request_.body || posts) {
    const std::string_view body = request_.body ? asText(*request_.body) : "";
    curl_easy_setopt(easy(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy(), CURLOPT_POSTFIELDS, body.empty() ? "" : body.data());
  }
  // Set the method only where libcurl would choose another: a custom method survives redirects.
  if (request_.method == "HEAD")
    curl_easy_setopt(easy(), CURLOPT_NOBODY, 1L);
  else if (!posts && (request_.method != "GET" || request_.body))
    curl_easy_setopt(easy(), CURLOPT_CUSTOMREQUEST, request_.method.c_str());
}

void CurlTransfer::setHeaders() {
  // Without "Expect: 100-continue", libcurl sends a large body at once.
  curl_slist* list = curl_slist_append(nullptr, "Expect:");
  for (const auto& [name, value] : request_.headers) {
    std::string header = name;
    header.append(value.empty() ? ";" : ": ").append(value);
    list = curl_slist_append(list, header.c_str());
  }
  headers_.reset(list);
  curl_easy_setopt(easy(), CURLOPT_HTTPHEADER, list);
}

/// An exception must not cross libcurl's frames.
std::size_t CurlTransfer::receive(char* bytes, std::size_t, std::size_t size, void* data) try {
  auto& self = *static_cast<CurlTransfer*>(data);
  if (size > kLargestAnswer - self.received_.size()) return 0;
  const auto* begin = reinterpret_cast<const std::byte*>(bytes);
  self.received_.insert(self.received_.end(), begin, begin + size);
  return size;
} catch (const std::bad_alloc&) {
  return 0;
}

void CurlTransfer::restartTimeout() {
  timeoutBegan_ = Clock::now();
  movedBefore_ = moved_;
}

CurlTransfer::Clock::time_point CurlTransfer::deadline() const {
  // Clamp the seconds, so that the sum fits the clock's type.
  const double seconds = std::clamp(request_.timeout, 0.0, 1e8);
  return timeoutBegan_ +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int CurlTransfer::noteProgress(void* data, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
  auto& self = *static_cast<CurlTransfer*>(data);
  self.moved_ = down + up;
  const bool begins = down > 0 && !std::exchange(self.isAnswering_, down > 0);
  const auto moved = static_cast<double>(self.moved_ - self.movedBefore_);
  if (begins || moved >= kLeastBytesPerSecond * self.request_.timeout) self.restartTimeout();
  // `receive` does not see the body of a redirect.
  if (down <= static_cast<curl_off_t>(kLargestAnswer)) return 0;
  self.refusal_ = URLError::cannotDecodeContentData;
  return 1;
}

/// libcurl retries a request when a keep-alive connection closes before the first byte of the
/// answer, and would repeat a POST on each dead connection that it finds. Allow one retry, on a new
/// connection. Allow none after a redirect: there libcurl ignores CURLOPT_FRESH_CONNECT.
int CurlTransfer::beforeSending(void* data, char*, char*, int, int) {
  auto& self = *static_cast<CurlTransfer*>(data);
  const long redirects = info<long>(self.easy(), CURLINFO_REDIRECT_COUNT);
  if (std::exchange(self.redirects_, redirects) != redirects) self.attempts_ = 0;
  if (++self.attempts_ > (redirects == 0 ? 2 : 1)) {
    self.refusal_ = URLError::networkConnectionLost;
    return CURL_PREREQFUNC_ABORT;
  }
  curl_easy_setopt(self.easy(), CURLOPT_FRESH_CONNECT, 1L);
  // After https, refuse a redirect to http.
  const char* scheme = info<const char*>(self.easy(), CURLINFO_SCHEME);
  if (scheme && strcasecmp(scheme, "https") == 0)
    curl_easy_setopt(self.easy(), CURLOPT_REDIR_PROTOCOLS_STR, "https");
  self.restartTimeout();
  self.isAnswering_ = false;
  return CURL_PREREQFUNC_OK;
}

URLSession::Outcome CurlTransfer::outcome(CURLcode result) {
  if (result == CURLE_OK) return {std::move(received_), std::nullopt};
  return {std::nullopt, urlError(refusal_ ? *refusal_ : urlErrorOf(easy(), result))};
}

}  // namespace kva
