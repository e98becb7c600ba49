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

/// One call to the ad server. Used by one thread, once.
class Request {
 public:
  Request(std::string requestPath, RequestMethod requestMethod)
      : path(std::move(requestPath)), method(requestMethod) {}

  std::string path;  ///< under the API base, such as "/init"
  RequestMethod method;
  std::map<std::string, std::string> headers;
  /// The URL's query, written as it is: the caller makes the values safe. Absent ones are left
  /// out.
  std::map<std::string, std::optional<std::string>> parameters;
  /// The JSON body of a post: an object; null stands for an absent value.
  Json body = Json::object();

  /// Against the API base of this moment. A text that is no URL is fatal.
  URLRequest urlRequest() const;
};

}  // namespace kva
