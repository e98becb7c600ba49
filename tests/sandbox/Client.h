#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "sandbox/Catalogue.h"
#include "sandbox/Server.h"

/// An HTTP client on a raw socket, and the requests of a healthy SDK.
namespace kva::sandbox {

using Json = nlohmann::json;

/// The client's view of one connection.
struct Reply {
  bool isReset = false;
  int status = 0;
  std::string head, body;

  Json json() const { return Json::parse(body, nullptr, false); }
  /// "400 aid: missing, ..." of the error record, or "ok".
  std::string verdict() const;
};

/// Sends `bytes` on a new connection and reads until it ends.
Reply exchangeBytes(int port, std::string_view bytes);

/// One request with the headers of the API. `path` starts at the root and includes the query.
Reply get(int port, const std::string& path, const std::string& headers = "");
Reply post(int port, const std::string& path, const Json& body);

inline const std::string kSomeUUID = "11111111-2222-4333-8444-555555555555";

std::string initPath();
/// The contract's example of a request, with changes.
Json request(std::string_view endpoint, const Json& changes = Json::object());
Json bidRequest(const std::string& uid, const CatalogueAdUnit& unit = adUnits()[0]);
Json loadRequest(const std::string& bid, const std::string& plan);
Json report(const std::string& bid);
Json statsRequest(const std::string& uid, Json reports);
std::string registeredUser(int port);

}  // namespace kva::sandbox
