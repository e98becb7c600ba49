#include "sandbox/Client.h"

#include <cerrno>
#include <charconv>

#include "api/Contract.h"
#include "platform/linux_support.h"

namespace kva::sandbox {
namespace {

constexpr const char* kApiHeaders =
    "Host: sandbox.test\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
    "Connection: close\r\n";

/// The example of a schema: of an object, its required members.
Json exampleOf(const Json& schema) {
  if (schema.contains("examples")) return schema["examples"][0];
  if (schema.contains("items")) return Json::array({exampleOf(schema["items"])});
  Json members;
  for (const std::string key : schema["required"])
    members[key] = exampleOf(schema["properties"][key]);
  return members;
}

}  // namespace

std::string Reply::verdict() const {
  const Json envelope = json();
  if (!envelope.is_object() || !envelope.contains("ok")) return "no envelope";
  if (envelope["ok"] == true) return "ok";
  const Json& error = envelope["err"];
  return error.is_null() ? "not ok" : error["code"].dump() + " " + error.value("msg", "");
}

Reply exchangeBytes(int port, std::string_view bytes) {
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

Reply get(int port, const std::string& path, const std::string& headers) {
  return exchangeBytes(port, "GET " + path + " HTTP/1.1\r\n" + kApiHeaders + headers + "\r\n");
}

Reply post(int port, const std::string& path, const Json& body) {
  const std::string text = body.dump(2);
  return exchangeBytes(port, "POST " + path + " HTTP/1.1\r\n" + kApiHeaders + "Content-Length: " +
                                 std::to_string(text.size()) + "\r\n\r\n" + text);
}

std::string initPath() {
  return "/api/v1/init?aid=" + std::string(kApplicationId) +
         "&sdkv=1.2.0&appv=3.1&pl=ios&osv=12&pkg=example.host";
}

Json request(std::string_view endpoint, const Json& changes) {
  Json fields = exampleOf(contract::Contract::current().requestSchema(endpoint));
  fields.update(changes);
  return fields;
}

Json bidRequest(const std::string& uid, const CatalogueAdUnit& unit) {
  return request("/bid/init", {{"uid", uid}, {"adid", unit.id}, {"adt", unit.adType}});
}

Json loadRequest(const std::string& bid, const std::string& plan) {
  return request("/bid/load", {{"bid", bid}, {"plan", plan}});
}

Json report(const std::string& bid) {
  return {{"bid", bid},    {"time", 0},     {"imp", false},  {"fts", false},
          {"dism", false}, {"clck", false}, {"comp", false}, {"quar", 0}};
}

Json statsRequest(const std::string& uid, Json reports) {
  return request("/bid/stats", {{"uid", uid}, {"stats", std::move(reports)}});
}

std::string registeredUser(int port) {
  return post(port, "/api/v1/register", request("/register")).json()["data"]["uid"];
}

}  // namespace kva::sandbox
