#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <Kelvara/ads/Template.h>
#include <Kelvara/base/Completion.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/UserDefaults.h>

namespace kva {

/// Fetches templates and stores them across restarts. Uses a stored template only if the
/// application has announced its version, or an older one, as the newest. Any thread.
class TemplateManager {
 public:
  static TemplateManager& shared();

  TemplateManager();

  /// Sets the newest version of each template, as the application announces it.
  void setTemplateVersions(std::map<std::string, std::int64_t> templateVersions);

  /// Calls `completion` before it returns if the stored template is new enough, else on the network
  /// session's thread. Passes nothing if the fetch fails, even if an older copy is stored.
  void templateFor(const std::string& id, Completion<std::optional<Template>> completion);

 private:
  /// Templates by the requested identifier. Shared, so that a lookup does not copy the document
  /// inside the lock.
  using Templates = std::map<std::string, std::shared_ptr<const Template>>;
  struct State {
    Templates templates;
    std::map<std::string, std::int64_t> templateVersions;
  };

  void keep(const std::string& id, Template fetched);
  static Templates storedTemplates(const KeyedValues& defaults);

  Guarded<State> state_;
};

}  // namespace kva
