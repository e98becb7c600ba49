#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <curl/curl.h>

#include <Kelvara/platform/URLSession.h>

namespace kva {

/// The connections that transfers share. They close when the last owner is destroyed.
using Connections = std::shared_ptr<CURLSH>;
Connections makeConnections();

/// What all transfers of a session have in common.
struct TransferSettings {
  std::string userAgent;
  std::string hostsWithoutProxy;
};

struct EasyCleanup {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;
/// A handle with the options that are the same for all transfers.
EasyHandle makeEasyHandle(const TransferSettings& settings);

/// One request in libcurl and its answer. libcurl holds its address. Session's thread only.
class CurlTransfer {
 public:
  using Clock = std::chrono::steady_clock;

  /// `easy` comes from `makeEasyHandle`, or from `takeEasy` of a transfer that has succeeded.
  CurlTransfer(URLRequest request, URLSession::Done done, Connections connections, EasyHandle easy);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  CURL* easy() const { return easy_.get(); }
  /// When the transfer times out: after `URLRequest::timeout` seconds without a connection or
  /// without an answer, or in which fewer than 100 bytes a second moved.
  Clock::time_point deadline() const;
  /// The outcome for libcurl's `result`. Moves the received data out.
  URLSession::Outcome outcome(CURLcode result);
  void finish(URLSession::Outcome outcome) { done_(std::move(outcome)); }
  /// The handle, for another transfer. The caller has removed it from its multi handle.
  EasyHandle takeEasy();

 private:
  struct HeadersCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  void setMethodAndBody();
  void setHeaders();
  void restartTimeout();

  static std::size_t receive(char* bytes, std::size_t, std::size_t size, void* self);
  static int noteProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
  static int beforeSending(void* self, char*, char*, int, int);

  URLRequest request_;
  URLSession::Done done_;
  Connections connections_;
  EasyHandle easy_;
  std::unique_ptr<curl_slist, HeadersCleanup> headers_;

  Bytes received_;
  std::optional<URLError> refusal_;  ///< set by the callback that aborted the transfer
  long redirects_ = 0;
  int attempts_ = 0;  ///< since the last redirect

  curl_off_t moved_ = 0;        ///< bytes on the wire, both directions
  curl_off_t movedBefore_ = 0;  ///< `moved_` when the time-out was restarted
  bool isAnswering_ = false;
  Clock::time_point timeoutBegan_ = Clock::now();
};

}  // namespace kva
