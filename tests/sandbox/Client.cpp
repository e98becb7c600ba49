#include "sandbox/Client.h"

#include <cerrno>
#include <charconv>

#include "platform/linux_support.h"

namespace kva::sandbox {
namespace {

constexpr const char* kApiHeaders =
    "Host: sandbox.test\r\nAccept: application/json\r\nContent-Type: application/json\r\n"
    "Connection: close\r\n";

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

Json userRecord() {
  Json record = Json::parse(R"({"sdkv": "1.2.0", "appv": "3.1", "pl": "ios", "osv": "12",
      "pkg": "example", "idfa": "", "dbra": "apple", "dmob": "model", "conn": "3g", "gsm": "",
      "cnst": -1, "gdpr": -1, "ccpa": -1, "lcl": "TR", "lng": "tr", "tzn": "GMT+3"})");
  record["aid"] = kApplicationId;
  return record;
}

Json bidRequest(const std::string& uid, const CatalogueAdUnit& unit) {
  return {{"aid", kApplicationId}, {"uid", uid},  {"adid", unit.id}, {"pl", "ios"},
          {"adt", unit.adType},    {"osv", "12"}, {"dbra", "apple"}, {"dmod", "model"}};
}

Json loadRequest(const std::string& bid, const std::string& plan) {
  return {{"aid", kApplicationId}, {"bid", bid}, {"plan", plan}, {"recpm", 4100}};
}

Json report(const std::string& bid) {
  return {{"bid", bid},    {"time", 0},     {"imp", false},  {"fts", false},
          {"dism", false}, {"clck", false}, {"comp", false}, {"quar", 0}};
}

Json statsRequest(const std::string& uid, Json reports) {
  return {{"aid", kApplicationId}, {"uid", uid}, {"stats", std::move(reports)}};
}

Json trackRequest(const std::string& idfa) {
  Json request = userRecord();
  for (const char* key : {"pkg", "dmob", "cnst", "gdpr", "ccpa"}) request.erase(key);
  request.update({{"dmod", "m"}, {"eid", nullptr}, {"idfa", idfa}});
  return request;
}

std::string registeredUser(int port) {
  return post(port, "/api/v1/register", userRecord()).json()["data"]["uid"];
}

}  // namespace kva::sandbox
