#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <Kelvara/base/Json.h>
#include <Kelvara/platform/URLSession.h>
#include <nlohmann/json.hpp>

namespace kva {

enum class RequestMethod { get, post };
std::string_view rawValue(RequestMethod method);  ///< "GET" or "POST"

/// One request to the ad server. Not thread-safe.
class Request {
 public:
  Request(std::string requestPath, RequestMethod requestMethod)
      : path(std::move(requestPath)), method(requestMethod) {}

  std::string path;  ///< under the API base, such as "/init"
  RequestMethod method;
  std::map<std::string, std::string> headers;
  /// The URL's query. The caller percent-encodes the values. Absent values are omitted.
  std::map<std::string, std::optional<std::string>> parameters;
  /// The JSON body of a post: an object, with null for an absent value.
  Json body = Json::object();

  /// The request with the current API base. Fatal if the text is not a URL.
  URLRequest urlRequest() const;
};

}  // namespace kva
