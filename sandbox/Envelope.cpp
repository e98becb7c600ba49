#include "sandbox/Envelope.h"

#include <nlohmann/json.hpp>

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

/// Returns the object that holds the last step of `path`, and that step; null if there is none.
std::pair<Json*, std::string> locate(Json& root, const std::string& path) {
  Json* at = &root;
  std::size_t begin = 0;
  for (;;) {
    std::size_t dot = path.find('.', begin);
    std::string step = path.substr(begin, dot == std::string::npos ? dot : dot - begin);
    bool last = dot == std::string::npos;
    if (at->is_array()) {
      std::size_t index = step.size() == 1 ? static_cast<std::size_t>(step[0] - '0') : at->size();
      if (index >= at->size() || last) return {nullptr, {}};
      at = &(*at)[index];
    } else {
      if (!at->is_object() || !at->contains(step)) return {nullptr, {}};
      if (last) return {at, step};
      at = &(*at)[step];
    }
    begin = dot + 1;
  }
}

Json ofAnotherType(const Json& value) {
  if (value.is_string() || value.is_null()) return 7;
  if (value.is_array()) return Json::object();
  if (value.is_object()) return Json::array();
  return "7";
}

void damage(Json& envelope, const Scenario& scenario) {
  auto [holder, key] = locate(envelope, scenario.key);
  if (!holder) return;
  if (scenario.behaviour == Behaviour::missingKey) {
    holder->erase(key);
  } else if (scenario.behaviour == Behaviour::replaced) {
    (*holder)[key] = Json::parse(scenario.value, nullptr, false);
  } else {
    (*holder)[key] = ofAnotherType((*holder)[key]);
  }
}

}  // namespace

Envelope Envelope::of(const Service::Result& result, std::int64_t time, const Scenario& scenario) {
  Json json = {{"ok", result.has_value()}, {"err", nullptr}, {"data", nullptr}, {"time", time}};
  Envelope envelope;
  envelope.verdict = "ok";
  if (result) {
    json["data"] = *result;
  } else {
    const Refusal& refusal = result.error();
    json["err"] = {{"code", refusal.code}, {"msg", refusal.message}};
    envelope.verdict = std::to_string(refusal.code) + " " + refusal.message;
    bool isStatus = refusal.code >= 400 && refusal.code < 600;
    envelope.status = isStatus ? static_cast<int>(refusal.code) : 200;
  }
  switch (scenario.behaviour) {
    case Behaviour::notOk:
      json.update({{"ok", false}, {"err", nullptr}, {"data", nullptr}});
      envelope.verdict = "not ok";
      break;
    case Behaviour::missingKey:
    case Behaviour::wrongType:
    case Behaviour::replaced:
      damage(json, scenario);
      break;
    case Behaviour::http500:
      envelope.status = 500;
      break;
    default:
      break;
  }
  envelope.body = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (scenario.behaviour == Behaviour::malformed) envelope.body.back() = ']';
  if (scenario.behaviour == Behaviour::emptyBody) envelope.body.clear();
  return envelope;
}

}  // namespace kva::sandbox
