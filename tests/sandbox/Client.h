#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kva::sandbox {

/// What a client without any library sees of one connection.
struct Reply {
  enum class End { closed, reset, silent } end = End::closed;
  int status = 0;
  std::string head, body;

  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
  /// "400 aid: missing, ..." of the error record, or "ok".
  std::string verdict() const;
};

/// Sends `bytes` on a connection of its own and reads until it ends or has said nothing for
/// `limit`.
Reply exchangeBytes(int port, std::string_view bytes,
                    std::chrono::milliseconds limit = std::chrono::seconds(10));

/// One request with the headers that the API expects; `path` from the root, query included.
Reply get(int port, const std::string& path, const std::string& headers = "");
Reply post(int port, const std::string& path, const nlohmann::json& body);
std::string postBytes(const std::string& path, const std::string& body);

}  // namespace kva::sandbox
