#include "sandbox/Scenario.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "sandbox/ReadInteger.h"
#include "sandbox/ReadJson.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

constexpr std::pair<std::string_view, Behaviour> kNames[] = {
    {"normal", Behaviour::normal},
    {"no-fill", Behaviour::noFill},
    {"error", Behaviour::serverError},
    {"not-ok", Behaviour::notOk},
    {"missing", Behaviour::missingKey},
    {"wrong-type", Behaviour::wrongType},
    {"malformed", Behaviour::malformed},
    {"truncated", Behaviour::truncated},
    {"empty", Behaviour::emptyBody},
    {"http-500", Behaviour::http500},
    {"reset", Behaviour::reset},
    {"hang", Behaviour::hang},
    {"replace", Behaviour::replaced},
    {"throttled", Behaviour::throttled},
    {"cut-head", Behaviour::cutHead},
    {"reset-body", Behaviour::resetBody},
    {"garbage-before", Behaviour::garbageBefore},
    {"garbage-within", Behaviour::garbageWithin},
    {"repeated-bytes", Behaviour::repeatedBytes},
    {"repeated-answer", Behaviour::repeatedAnswer},
};

std::optional<Behaviour> behaviourNamed(std::string_view name) {
  auto found = std::ranges::find(kNames, name, &std::pair<std::string_view, Behaviour>::first);
  if (found == std::end(kNames)) return std::nullopt;
  return found->second;
}

/// Removes the text up to the next `mark` from the front of `rest` and returns it.
std::string_view cut(std::string_view& rest, char mark) {
  auto at = rest.find(mark);
  std::string_view piece = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view{} : rest.substr(at + 1);
  return piece;
}

expected<Scenario, std::string> checked(Scenario scenario) {
  bool damagesKey = scenario.behaviour == Behaviour::missingKey ||
                    scenario.behaviour == Behaviour::wrongType ||
                    scenario.behaviour == Behaviour::replaced;
  if (damagesKey == scenario.key.empty()) {
    return unexpected(damagesKey ? "scenario: which key?" : "scenario: takes no key");
  }
  // toJson() writes a value even if a later word makes it unused, so it must be JSON.
  bool hasValue = scenario.behaviour == Behaviour::replaced || !scenario.value.empty();
  if (hasValue && !readJson(scenario.value)) return unexpected("replace: expected a JSON value");
  if (scenario.delay.count() < 0) return unexpected("delay: expected milliseconds");
  if (scenario.times && *scenario.times < 1) return unexpected("times: expected 1 or more");
  return scenario;
}

}  // namespace

std::string_view name(Behaviour behaviour) {
  return std::ranges::find(kNames, behaviour, &std::pair<std::string_view, Behaviour>::second)
      ->first;
}

expected<Scenario, std::string> Scenario::parse(std::string_view text) {
  Scenario scenario;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view arguments = cut(rest, ',');
    std::string_view word = cut(arguments, ':');
    if (word == "delay" || word == "times") {
      auto value = readInteger(arguments);
      if (!value) return unexpected(std::string(word) + ": expected a number");
      if (word == "delay") scenario.delay = std::chrono::milliseconds(*value);
      if (word == "times") scenario.times = value;
      continue;
    }
    auto behaviour = behaviourNamed(word);
    if (!behaviour) return unexpected("scenario: no \"" + std::string(word) + "\"");
    scenario.behaviour = *behaviour;
    if (*behaviour == Behaviour::replaced) {
      scenario.key = cut(arguments, ':');
      scenario.value = arguments;
    } else if (*behaviour != Behaviour::serverError) {
      scenario.key = arguments;
    } else if (!arguments.empty()) {
      auto code = readInteger(cut(arguments, ':'));
      if (!code) return unexpected("error: expected a code");
      scenario.code = *code;
      if (!arguments.empty()) scenario.message = arguments;
    }
  }
  return checked(std::move(scenario));
}

expected<Scenario, std::string> Scenario::fromJson(const Json& json) {
  Scenario scenario;
  for (const auto& [key, value] : json.items()) {
    const auto* text = value.get_ptr<const std::string*>();
    if (key == "endpoint") continue;
    if (key == "value") {
      scenario.value = value.dump();
      continue;
    }
    if (key == "scenario" || key == "message" || key == "key") {
      if (!text) return unexpected(key + ": expected a string");
    } else if (!value.is_number_integer()) {
      return unexpected(key + ": expected an integer");
    }
    if (key == "scenario") {
      auto behaviour = behaviourNamed(*text);
      if (!behaviour) return unexpected("scenario: no \"" + *text + "\"");
      scenario.behaviour = *behaviour;
    } else if (key == "message") {
      scenario.message = *text;
    } else if (key == "key") {
      scenario.key = *text;
    } else if (key == "code") {
      scenario.code = value;
    } else if (key == "delay") {
      scenario.delay = std::chrono::milliseconds(value.get<std::int64_t>());
    } else if (key == "times") {
      scenario.times = value;
    } else {
      return unexpected(key + ": not expected here");
    }
  }
  return checked(std::move(scenario));
}

Json Scenario::toJson() const {
  Json json = {{"scenario", name(behaviour)}, {"delay", delay.count()}};
  if (times) json["times"] = *times;
  if (behaviour == Behaviour::serverError) json.update({{"code", code}, {"message", message}});
  if (!key.empty()) json["key"] = key;
  if (!value.empty()) json["value"] = Json::parse(value);
  return json;
}

}  // namespace kva::sandbox
