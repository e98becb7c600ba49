#pragma once

#include <gmock/gmock.h>

#include <charconv>

#include "api/Contract.h"
#include "platform/linux_support.h"
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
  std::string verdict() const {
    const Json envelope = json();
    if (!envelope.is_object() || !envelope.contains("ok")) return "no envelope";
    if (envelope["ok"] == true) return "ok";
    const Json& error = envelope["err"];
    return error.is_null() ? "not ok" : error["code"].dump() + " " + error.value("msg", "");
  }
};

/// Sends `bytes` on a new connection and reads until it ends.
inline Reply exchangeBytes(int port, std::string_view bytes) {
  Reply reply;
  const test::LoopbackSocket client;
  auto address = client.address;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return reply;
  send(client.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  std::string received;
  char piece[4096];
  ssize_t got = 0;
  while ((got = recv(client.fd, piece, sizeof piece, 0)) > 0)
    received.append(piece, static_cast<std::size_t>(got));
  reply.isReset = got < 0 && errno == ECONNRESET;
  const auto blank = received.find("\r\n\r\n");
  reply.head = received.substr(0, blank);
  if (blank != std::string::npos) reply.body = received.substr(blank + 4);
  if (received.size() > 12)
    std::from_chars(received.data() + 9, received.data() + 12, reply.status);
  return reply;
}

inline constexpr const char* kApiHeaders =
    "Host: sandbox.test\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
    "Connection: close\r\n";

/// One request with the headers of the API. `path` starts at the root and includes the query.
inline Reply get(int port, const std::string& path, const std::string& headers = "") {
  return exchangeBytes(port, "GET " + path + " HTTP/1.1\r\n" + kApiHeaders + headers + "\r\n");
}
inline Reply post(int port, const std::string& path, const Json& body) {
  const std::string text = body.dump(2);
  return exchangeBytes(port, "POST " + path + " HTTP/1.1\r\n" + kApiHeaders + "Content-Length: " +
                                 std::to_string(text.size()) + "\r\n\r\n" + text);
}

inline const std::string kSomeUUID = "11111111-2222-4333-8444-555555555555";
inline const std::string kInitPath = "/api/v1/init?aid=" + std::string(kApplicationId) +
                                     "&sdkv=1.2.0&appv=3.1&pl=ios&osv=12&pkg=example.host";
inline std::string templatePath(const std::string& id) {
  return "/api/v1/template?aid=" + std::string(kApplicationId) + "&tmpl=" + id;
}

/// The example of a schema: of an object, its required members.
inline Json exampleOf(const Json& schema) {
  if (schema.contains("examples")) return schema["examples"][0];
  if (schema.contains("items")) return Json::array({exampleOf(schema["items"])});
  Json members;
  for (const std::string key : schema["required"])
    members[key] = exampleOf(schema["properties"][key]);
  return members;
}

/// The contract's example of a request, with changes.
inline Json request(std::string_view endpoint, const Json& changes = Json::object()) {
  Json fields = exampleOf(contract::Contract::current().requestSchema(endpoint));
  fields.update(changes);
  return fields;
}
inline Json bidRequest(const std::string& uid, const CatalogueAdUnit& unit = adUnits()[0]) {
  return request("/bid/init", {{"uid", uid}, {"adid", unit.id}, {"adt", unit.adType}});
}
inline Json loadRequest(const Json& bid, const Json& plan) {
  return request("/bid/load", {{"bid", bid}, {"plan", plan}});
}
inline Json report(const Json& bid, const Json& changes = Json::object()) {
  Json report = {{"bid", bid},    {"time", 0},     {"imp", false},  {"fts", false},
                 {"dism", false}, {"clck", false}, {"comp", false}, {"quar", 0}};
  report.update(changes);
  return report;
}
inline Json statsRequest(const std::string& uid, Json reports) {
  return request("/bid/stats", {{"uid", uid}, {"stats", std::move(reports)}});
}

/// A server with a registered user.
class SandboxTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    uid = registeredUser();
  }
  Reply get(const std::string& path, const std::string& headers = "") const {
    return sandbox::get(server.port(), path, headers);
  }
  Reply call(const std::string& endpoint, const Json& body) const {
    return post(server.port(), "/api/v1" + endpoint, body);
  }
  Json data(const std::string& endpoint, const Json& body) const {
    return call(endpoint, body).json()["data"];
  }
  int control(const std::string& what, const Json& body) const {
    return post(server.port(), "/control/" + what, body).status;
  }
  std::string registeredUser() const { return data("/register", request("/register"))["uid"]; }

  Server server;
  std::string uid;
};

}  // namespace kva::sandbox
