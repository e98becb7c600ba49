#include <Kelvara/api/Request.h>

#include <utility>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Log.h>

namespace kva {

std::string_view rawValue(RequestMethod method) {
  return method == RequestMethod::get ? "GET" : "POST";
}

URLRequest Request::urlRequest() const {
  std::string text = RequestManager::baseURL() + path;
  char separator = '?';
  for (const auto& [key, value] : parameters) {
    if (!value) continue;
    text += separator + key + "=" + *value;
    separator = '&';
  }
  auto url = URL::parse(text);
  if (!url)
    fatal("Unexpectedly found nil while unwrapping an Optional value: no URL: \"" + text + "\"");

  URLRequest request{.url = *std::move(url),
                     .method = std::string(rawValue(method)),
                     .headers = headers,
                     .body = {}};
  if (method == RequestMethod::post) {
    try {
      request.body = toBytes(body.dump(2));
    } catch (const Json::exception& error) {
      Log::e(std::string("Request body parse: ") + error.what());
    }
  }
  return request;
}

}  // namespace kva
