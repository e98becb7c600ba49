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

/// Fetches templates and keeps them across restarts. A kept one is trusted only once the
/// application has announced the version that it needs. Any thread.
class TemplateManager {
 public:
  static TemplateManager& shared();

  TemplateManager();

  /// The newest version of each template, as the application announces them.
  void setTemplateVersions(std::map<std::string, std::int64_t> templateVersions);

  /// Answers before it returns when the kept copy will do, otherwise on the network session's
  /// thread; nothing when the template could not be fetched, even if an older copy is kept.
  void templateFor(const std::string& id, Completion<std::optional<Template>> completion);

 private:
  /// Templates by the identifier under which they were asked for. Shared, so that finding one does
  /// not copy the document under the guard.
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
