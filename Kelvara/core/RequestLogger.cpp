#include <Kelvara/core/RequestLogger.h>

#include <string>

#include <Kelvara/api/Request.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <nlohmann/json.hpp>

namespace kva {
namespace {

bool isLogEnabled() { return Log::shared().logLevel() == LogLevel::d; }

const char* typeName(const Json& value) {
  if (value.is_string()) return "String";
  if (value.is_boolean()) return "Bool";
  if (value.is_number_float()) return "Double";
  if (value.is_number()) return "Int";
  return value.is_array() ? "Array" : "Dictionary";
}

std::string described(const Json& value) {
  // Text that is not UTF-8 cannot be sent, but is logged with replacement characters.
  return value.is_string() ? value.get<std::string>()
                           : value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string bodyEntries(const Json& body) {
  std::string entries;
  for (const auto& [key, value] : body.items()) {
    if (!entries.empty()) entries += ", ";
    entries += key + ": ";
    entries +=
        value.is_null() ? "nil" : std::string(typeName(value)) + "(" + described(value) + ")";
  }
  return entries;
}

}  // namespace

void RequestLogger::log(const Request& request) {
  if (!isLogEnabled()) return;
  std::string block = "[-------------\n" + RequestManager::baseURL() + request.path + "]";
  if (request.method == RequestMethod::get)
    block += "\n" + request.urlRequest().url.absoluteString();
  if (!request.headers.empty()) block += "\n" + Json(request.headers).dump();
  block += "\n[" + std::string(rawValue(request.method)) + "]";
  if (!request.body.empty()) block += "\n[" + bodyEntries(request.body) + "]";
  block += "\n-------------";
  Runtime::current().platform().logOutput->print(LogLevel::d, "Request: \n" + block + " \n");
}

}  // namespace kva
