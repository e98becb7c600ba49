#include "sandbox/WhyNoAd.h"

#include <nlohmann/json.hpp>

#include "sandbox/Catalogue.h"
#include "sandbox/ReadJson.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

std::string field(const Json& request, const char* key) {
  const bool isText = request.is_object() && request.contains(key) && request[key].is_string();
  return isText ? request[key].get<std::string>() : std::string("(none)");
}

/// `verdict` is the code and the message of the error record.
std::string whyRefused(const std::string& verdict, const Json& request) {
  const auto has = [&](const char* text) { return verdict.contains(text); };
  if (has("uid: no such user")) {
    return "This server does not know the user " + field(request, "uid") +
           ": another server made it, or a reset has removed it. The SDK registers again, so "
           "request another bid.";
  }
  if (has("aid: no such application")) {
    return "The application " + field(request, "aid") +
           " is not this server's. Start the SDK with " + std::string(kApplicationId) + ".";
  }
  if (has("adid: no such ad unit")) {
    return "This server has no ad unit " + field(request, "adid") +
           ". The catalogue lists its ad units.";
  }
  if (has("adt: this ad unit is")) {
    return "The ad unit " + field(request, "adid") + " is not of the kind \"" +
           field(request, "adt") + "\" that the host requested. Use the other KVABidType.";
  }
  if (has("already l")) {
    return "This bid is closed (" + verdict + "). A bid serves one ad, so request a new bid.";
  }
  if (has("no such bid") || has("plan: not one")) {
    return "This server has not made this offer (" + verdict +
           "): another server made it, or a reset has removed it. Request a new bid.";
  }
  return "The request breaks the contract (" + verdict + "). /docs describes each field.";
}

}  // namespace

std::string whyNoAd(const Exchange& exchange) {
  const bool isBid = exchange.endpoint == "/bid/init";
  if (!isBid && exchange.endpoint != "/bid/load") return {};
  const bool isPlanted = exchange.scenario == "error" || exchange.scenario == "not-ok" ||
                         exchange.scenario == "no-fill" || !exchange.breach.empty();
  const std::string planted =
      "The scenario \"" + exchange.scenario + "\" is set for " + exchange.endpoint;
  if (!exchange.breach.empty()) {
    return planted + ", so the SDK cannot use the answer (" + exchange.breach + ").";
  }
  if (exchange.verdict != "ok") {
    if (isPlanted) return planted + ", so the host receives an error (" + exchange.verdict + ").";
    return whyRefused(exchange.verdict, readJson(exchange.request).value_or(Json()));
  }
  const auto answer = readJson(exchange.response);
  if (!isBid || !answer || !(*answer)["data"]["plans"].empty()) return {};
  return isPlanted ? planted + ", so no plan bids."
                   : "Every plan of this ad unit is switched off. Switch one on.";
}

}  // namespace kva::sandbox
