#include "platform/linux/CurlErrors.h"

#include <cerrno>

#include "platform/linux/RouteMonitor.h"

namespace kva {
namespace {

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
