#include <Kelvara/ads/Template.h>

#include <nlohmann/json.hpp>

namespace kva {

Result<Template> Template::decode(const Json& json) {
  Reader in(json);
  Template record{
      .id = in.required<std::string>("tmpl"),
      .adType = in.requiredAs<AdType, std::string>("adt", adTypeFromRawValue, AdType::interstitial),
      .name = in.optional<std::string>("name"),
      .htmlData = in.required<std::string>("html"),
      .version = in.required<std::int64_t>("tver")};
  return in.finish(std::move(record));
}

Json Template::toJson() const {
  Json json = {
      {"tmpl", id}, {"adt", std::string(rawValue(adType))}, {"html", htmlData}, {"tver", version}};
  if (name) json["name"] = *name;
  return json;
}

}  // namespace kva
