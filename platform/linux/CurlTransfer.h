#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <curl/curl.h>

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// The connections that transfers share, closed with the last of those.
using Connections = std::shared_ptr<CURLSH>;
Connections makeConnections();

/// Settings of a session that every transfer has.
struct TransferSettings {
  std::string userAgent;
  std::string hostsWithoutProxy;
};

/// One exchange on its way through libcurl. Stays at its address; used on the session's thread.
class CurlTransfer {
 public:
  using Clock = std::chrono::steady_clock;

  CurlTransfer(URLRequest request, URLSession::Done done, Connections connections,
               const TransferSettings& settings);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  CURL* easy() const { return easy_.get(); }
  /// When it has timed out: after `URLRequest::timeout` without a connection, without an answer, or
  /// with less than 100 bytes a second.
  Clock::time_point deadline() const;
  /// What came of it, as libcurl's `result` says.
  URLSession::Outcome outcome(CURLcode result);
  void finish(URLSession::Outcome outcome) { done_(std::move(outcome)); }

 private:
  struct EasyCleanup {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct HeadersCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  void setMethodAndBody();
  void setHeaders();
  void setLimits();
  void restartMinute();

  static std::size_t receive(char* bytes, std::size_t, std::size_t size, void* self);
  static int noteProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
  static int beforeSending(void* self, char*, char*, int, int);

  URLRequest request_;
  URLSession::Done done_;
  Connections connections_;
  std::unique_ptr<CURL, EasyCleanup> easy_;
  std::unique_ptr<curl_slist, HeadersCleanup> headers_;

  Bytes received_;
  std::optional<URLError> refusal_;  ///< why a callback ended it
  long redirects_ = 0;
  int sendings_ = 0;  ///< since the last redirect

  curl_off_t moved_ = 0;  ///< bytes on the wire, both ways
  curl_off_t movedBefore_ = 0;
  bool isAnswering_ = false;
  Clock::time_point minuteBegan_ = Clock::now();
};

}  // namespace kva
