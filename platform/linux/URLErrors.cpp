#include "platform/linux/URLErrors.h"

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

}  // namespace

Error urlError(URLError code) {
  return Error(kURLErrorDomain, static_cast<std::int64_t>(code), descriptionOf(code));
}

}  // namespace kva
