#include <Kelvara/base/JsonParts.h>

#include <charconv>
#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/base/Json.h>

namespace kva {

std::optional<JsonParts> JsonParts::split(Kind kind, const Bytes& whole) {
  const auto json = parseJson(asText(whole));
  if (!json || !(kind == Kind::object ? json->is_object() : json->is_array())) return {};
  JsonParts parts{.kind = kind, .texts = {}};
  for (const auto& [name, member] : json->items()) {
    auto key = kind == Kind::object ? name : nameOf(parts.texts.size());
    parts.texts.emplace(std::move(key), jsonText(member));
  }
  return parts;
}

void JsonParts::set(const std::string& name, const std::optional<std::string>& text) {
  if (text)
    texts.insert_or_assign(name, *text);
  else
    texts.erase(name);
}

Bytes JsonParts::joined() const {
  const bool isObject = kind == Kind::object;
  std::string whole(1, isObject ? '{' : '[');
  for (const auto& [name, text] : texts) {
    if (whole.size() > 1) whole += ',';
    if (isObject) whole.append(jsonText(name)) += ':';
    whole += text;
  }
  whole += isObject ? '}' : ']';
  return toBytes(whole);
}

std::string JsonParts::nameOf(std::uint64_t position) {
  constexpr std::size_t kDigits = 20;
  std::string digits = std::to_string(position);
  return digits.insert(0, kDigits - digits.size(), '0');
}

std::uint64_t JsonParts::positionOf(const std::string& name) {
  std::uint64_t position = 0;
  std::from_chars(name.data(), name.data() + name.size(), position);
  return position;
}

}  // namespace kva
