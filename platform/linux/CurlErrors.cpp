#include "platform/linux/CurlErrors.h"

#include <cerrno>

#include "platform/linux/RouteMonitor.h"

namespace kva {
namespace {

const char* descriptionOf(URLError code) {
  switch (code) {
    case URLError::cancelled:
      return "The request was cancelled.";
    case URLError::badURL:
      return "The address is not valid.";
    case URLError::timedOut:
      return "The request timed out.";
    case URLError::unsupportedURL:
      return "The address is of a kind that is not supported.";
    case URLError::cannotFindHost:
      return "A server with the specified host name could not be found.";
    case URLError::cannotConnectToHost:
      return "Could not connect to the server.";
    case URLError::networkConnectionLost:
      return "The network connection was lost.";
    case URLError::dnsLookupFailed:
      return "The host name could not be looked up.";
    case URLError::httpTooManyRedirects:
      return "The server redirected too many times.";
    case URLError::notConnectedToInternet:
      return "There is no connection to the Internet.";
    case URLError::badServerResponse:
      return "The server's answer is not HTTP.";
    case URLError::cannotDecodeContentData:
      return "The server's answer could not be decoded.";
    case URLError::secureConnectionFailed:
      return "A secure connection could not be made.";
    case URLError::serverCertificateUntrusted:
      return "The server's certificate is not trusted.";
    case URLError::unknown:
      break;
  }
  return "The request failed.";
}

bool hasRouteToInternet() { return !routesToInternet().empty(); }

URLError connectError(CURL* easy) {
  long systemError = 0;
  curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &systemError);
  switch (systemError) {
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
      return URLError::notConnectedToInternet;
    case EADDRNOTAVAIL:  // no source address: there is no network, or no free port
      return hasRouteToInternet() ? URLError::cannotConnectToHost
                                  : URLError::notConnectedToInternet;
    case ETIMEDOUT:
      return URLError::timedOut;
    default:
      return URLError::cannotConnectToHost;
  }
}

/// libcurl has one code for a redirect to a forbidden scheme and for an answer that is not HTTP.
/// An answer that is not HTTP has no status.
URLError unsupportedProtocol(CURL* easy) {
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  return status == 0 ? URLError::badServerResponse : URLError::unsupportedURL;
}

}  // namespace

Error urlError(URLError code) {
  return Error(kURLErrorDomain, static_cast<std::int64_t>(code), descriptionOf(code));
}

URLError urlErrorOf(CURL* easy, CURLcode result) {
  switch (result) {
    case CURLE_URL_MALFORMAT:
      return URLError::badURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return unsupportedProtocol(easy);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return hasRouteToInternet() ? URLError::cannotFindHost : URLError::notConnectedToInternet;
    case CURLE_COULDNT_CONNECT:
      return connectError(easy);
    case CURLE_OPERATION_TIMEDOUT:
      return URLError::timedOut;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return URLError::networkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return URLError::httpTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY:
      return URLError::badServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
    // The body continues after the end of its compressed stream, or exceeds the size limit.
    case CURLE_WRITE_ERROR:
      return URLError::cannotDecodeContentData;
    case CURLE_PEER_FAILED_VERIFICATION:
      return URLError::serverCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CACERT_BADFILE:
      return URLError::secureConnectionFailed;
    default:
      return URLError::unknown;
  }
}

}  // namespace kva
