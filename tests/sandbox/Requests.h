#pragma once

#include <string>

#include "sandbox/Catalogue.h"
#include "sandbox/Client.h"
#include "sandbox/Server.h"

/// Requests as a healthy SDK makes them, for tests to send or to spoil.
namespace kva::sandbox {

using Json = nlohmann::json;

inline const std::string kSomeUUID = "11111111-2222-4333-8444-555555555555";

inline std::string initPath() {
  return "/api/v1/init?aid=" + std::string(kApplicationId) +
         "&sdkv=1.2.0&appv=3.1&pl=ios&osv=12&pkg=example.host";
}

inline Json userRecord() {
  return {{"aid", kApplicationId},
          {"sdkv", "1.2.0"},
          {"appv", "3.1"},
          {"pl", "ios"},
          {"osv", "12"},
          {"pkg", "example"},
          {"idfa", ""},
          {"dbra", "apple"},
          {"dmob", "model"},
          {"conn", "3g"},
          {"gsm", ""},
          {"cnst", -1},
          {"gdpr", -1},
          {"ccpa", -1},
          {"lcl", "TR"},
          {"lng", "tr"},
          {"tzn", "GMT+3"}};
}

inline Json bidRequest(const std::string& uid, std::string_view unit = kInterstitialAdUnit,
                       const std::string& adType = "interstitial") {
  return {{"aid", kApplicationId}, {"uid", uid},  {"adid", unit},    {"pl", "ios"},
          {"adt", adType},         {"osv", "12"}, {"dbra", "apple"}, {"dmod", "model"}};
}

inline Json loadRequest(const std::string& bid, const std::string& plan) {
  return {{"aid", kApplicationId}, {"bid", bid}, {"plan", plan}, {"recpm", 4100}};
}

inline Json report(const std::string& bid) {
  return {{"bid", bid},    {"time", 0},     {"imp", false},  {"fts", false},
          {"dism", false}, {"clck", false}, {"comp", false}, {"quar", 0}};
}

inline Json statsRequest(const std::string& uid, Json reports) {
  return {{"aid", kApplicationId}, {"uid", uid}, {"stats", std::move(reports)}};
}

inline Json trackRequest(const std::string& idfa) {
  return {
      {"aid", kApplicationId}, {"sdkv", "1.2.0"}, {"appv", "3.1"}, {"pl", "ios"},   {"osv", "12"},
      {"dbra", "apple"},       {"dmod", "m"},     {"conn", "4g"},  {"gsm", ""},     {"lcl", "TR"},
      {"lng", "tr"},           {"tzn", "GMT"},    {"idfa", idfa},  {"eid", nullptr}};
}

inline std::string registeredUser(int port) {
  return post(port, "/api/v1/register", userRecord()).json()["data"]["uid"];
}

}  // namespace kva::sandbox
