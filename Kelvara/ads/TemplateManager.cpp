#include <Kelvara/ads/TemplateManager.h>

#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>

namespace kva {

TemplateManager& TemplateManager::shared() { return Runtime::current().get<TemplateManager>(); }

TemplateManager::TemplateManager()
    : state_({.templates = storedTemplates(userDefaults()), .templateVersions = {}}) {}

void TemplateManager::setTemplateVersions(std::map<std::string, std::int64_t> templateVersions) {
  state_.with([&](State& state) { state.templateVersions = std::move(templateVersions); });
}

void TemplateManager::templateFor(const std::string& id,
                                  Completion<std::optional<Template>> completion) {
  std::optional<std::int64_t> required;
  std::shared_ptr<const Template> cached;
  state_.with([&](const State& state) {
    if (const auto found = state.templateVersions.find(id); found != state.templateVersions.end())
      required = found->second;
    if (const auto found = state.templates.find(id); found != state.templates.end())
      cached = found->second;
  });
  if (required && cached && *required <= cached->version) return completion(*cached);

  const auto appId = SDKManager::shared().appId();
  if (!appId) fatal("a template was requested but the SDK has no application id");
  RequestManager::getTemplate(
      *appId, id, required,
      [this, id, completion = std::move(completion)](Result<Template> result) mutable {
        if (!result) {
          Log::e("Get template error: " + result.error().localizedDescription());
          return completion(std::nullopt);
        }
        Log::d("Get template: " + result->id + " - version: " + std::to_string(result->version));
        keep(id, *result);
        completion(*std::move(result));
      });
}

void TemplateManager::keep(const std::string& id, Template fetched) {
  auto shared = std::make_shared<const Template>(std::move(fetched));
  state_.with([&](State& state) { state.templates[id] = shared; });
  // Keep the templates of other processes. If storing fails, a later launch fetches this one again.
  std::ignore = userDefaults().edit([&](KeyedValues& stored) {
    Json json = Json::object();
    for (const auto& [key, kept] : storedTemplates(stored)) json[key] = kept->toJson();
    json[id] = shared->toJson();
    stored.set(SDKHelper::UserDefaultKeys::templates, toBytes(jsonText(json)));
  });
}

TemplateManager::Templates TemplateManager::storedTemplates(const KeyedValues& defaults) {
  const auto bytes = defaults.get<Bytes>(SDKHelper::UserDefaultKeys::templates);
  if (!bytes) return {};
  const auto json = parseJson(asText(*bytes));
  if (!json || !json->is_object()) return {};
  Templates templates;
  for (const auto& [id, element] : json->items()) {
    auto stored = Template::decode(element);
    if (!stored) return {};
    templates.emplace(id, std::make_shared<const Template>(*std::move(stored)));
  }
  return templates;
}

}  // namespace kva
