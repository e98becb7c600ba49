#include <Kelvara/ads/TemplateManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

constexpr const char* kKey = SDKHelper::UserDefaultKeys::templates;

class TemplateFetching : public Stage {
 protected:
  static Json templateJson(const Json& version) {
    Json json = Json::parse(R"({"tmpl": "inner", "adt": "native", "name": "n", "html": "<p>"})");
    json["tver"] = version;
    return json;
  }
  void serve(int version) {
    h.server.reply("/template", headless::envelope(templateJson(version).dump()));
  }
  static void announce(std::int64_t version) {
    TemplateManager::shared().setTemplateVersions({{"t", version}});
  }
  /// Requests the template. Returns the version that each completion got; 0 for none.
  std::vector<std::int64_t> versions() {
    std::vector<std::int64_t> answers;
    TemplateManager::shared().templateFor(
        "t", [&](std::optional<Template> found) { answers.push_back(found ? found->version : 0); });
    h.time.run();
    return answers;
  }
  using Versions = std::vector<std::int64_t>;
};

TEST_F(TemplateFetching, UsesTheStoredCopyOnlyForAnAnnouncedVersion) {
  serve(3);
  EXPECT_EQ(versions(), Versions{3});
  EXPECT_EQ(versions(), Versions{3});
  EXPECT_EQ(h.server.lastRequest("/template").query,
            (std::map<std::string, std::string>{{"aid", kAppId}, {"tmpl", "t"}}));
  EXPECT_EQ(h.output.count("<KVA> [D]: Get template: inner - version: 3"), 2);
  serve(4);
  for (int announced : {3, 2}) {
    announce(announced);
    EXPECT_EQ(versions(), Versions{3});
  }
  announce(4);
  EXPECT_EQ(versions(), Versions{4});
  EXPECT_EQ(h.server.lastRequest("/template").query.at("tver"), "4");

  announce(5);
  refuse("/template", 8, "no such template");
  EXPECT_EQ(versions(), Versions{0});
  EXPECT_EQ(h.output.count("<KVA> [E]: Get template error: no such template"), 1);
  announce(4);
  EXPECT_EQ(versions(), Versions{4}) << "a failure keeps the stored copy";
}

TEST_F(TemplateFetching, StoresTemplatesUnderTheRequestedIdentifierAcrossARestart) {
  serve(3);
  versions();
  const Json valid = {{"t", templateJson(3)}};
  EXPECT_EQ(stored(kKey), valid);

  serve(9);
  Json malformed = valid;
  malformed["u"] = templateJson("3");
  for (const auto& [templates, answer] : {std::pair(valid, 3), std::pair(malformed, 9)}) {
    h.defaults.set(kKey, toBytes(templates.dump()));
    launch();
    announce(3);
    EXPECT_EQ(versions(), Versions{answer});
  }
  restart();
  EXPECT_DEATH(versions(), "no application id");
}

}  // namespace
}  // namespace kva
