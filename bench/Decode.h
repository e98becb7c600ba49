#pragma once

#include <string>

#include <Kelvara/api/Response.h>
#include <Kelvara/base/Fatal.h>
#include <nlohmann/json.hpp>

namespace kva::bench {

/// Decodes an answer as the SDK does. Fatal if it has no T.
template <class T>
void decode(const std::string& answer) {
  const auto json = parseJson(answer);
  if (!json) fatal("not JSON: " + answer);
  const auto response = Response<T>::decode(*json);
  if (!response || !response->data) fatal("not decoded: " + answer);
}

}  // namespace kva::bench
