#include <vector>

#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/core/Log.h>
#include <ads/AdsTest.h>

namespace kva {
namespace {

constexpr const char* kKey = SDKHelper::UserDefaultKeys::templates;

Json templateJson(int version) {
  return {{"tmpl", "inner"}, {"adt", "rewarded"}, {"html", "<p>"}, {"tver", version}};
}

class TemplateFetching : public AdsTest {
 protected:
  void serve(int version) {
    h.server.reply("/template", headless::envelope(templateJson(version).dump()));
  }
  static void announce(std::int64_t version) {
    TemplateManager::shared().setTemplateVersions({{"t", version}});
  }
  /// The version that one request is answered with, once; nothing when it failed.
  std::optional<std::int64_t> version() {
    std::vector<std::optional<Template>> answers;
    TemplateManager::shared().templateFor(
        "t", [&](std::optional<Template> found) { answers.push_back(std::move(found)); });
    h.time.run();
    EXPECT_EQ(answers.size(), 1u);
    if (answers.empty() || !answers[0]) return {};
    EXPECT_EQ(answers[0]->htmlData, "<p>");
    return answers[0]->version;
  }
  int fetches() { return h.server.count("/template"); }
};

TEST_F(TemplateFetching, TrustsAKeptCopyOnlyForAnAnnouncedVersion) {
  start();
  Log::shared().setLogLevel(LogLevel::d);
  serve(3);
  EXPECT_EQ(version(), 3);
  EXPECT_EQ(version(), 3);
  EXPECT_EQ(fetches(), 2);
  EXPECT_EQ(h.server.lastRequest("/template").query,
            (std::map<std::string, std::string>{{"aid", kAppId}, {"tmpl", "t"}}));
  EXPECT_EQ(h.output.count("<KVA> [D]: Get template: inner - version: 3"), 2);

  announce(3);
  EXPECT_EQ(version(), 3);
  announce(2);
  EXPECT_EQ(version(), 3);
  EXPECT_EQ(fetches(), 2);

  announce(4);
  serve(4);
  EXPECT_EQ(version(), 4);
  EXPECT_EQ(version(), 4);
  EXPECT_EQ(fetches(), 3);
  EXPECT_EQ(h.server.lastRequest("/template").query.at("tver"), "4");

  announce(5);
  h.server.reply("/template", headless::errorEnvelope(8, "no such template"));
  EXPECT_EQ(version(), std::nullopt);
  EXPECT_EQ(h.output.count("<KVA> [E]: Get template error: no such template"), 1);
  announce(4);
  EXPECT_EQ(version(), 4);  // the copy was kept all the same
}

TEST_F(TemplateFetching, KeepsTemplatesUnderTheAskedIdentifierAcrossARestart) {
  start();
  serve(3);
  version();
  EXPECT_EQ(stored(kKey), Json({{"t", templateJson(3)}}));

  restart();
  start();
  serve(7);
  announce(3);
  EXPECT_EQ(version(), 3);
  TemplateManager::shared().setTemplateVersions({});
  EXPECT_EQ(version(), 7);
}

TEST_F(TemplateFetching, WhatIsStoredAndUnreadableCountsAsNothing) {
  const std::string good = Json({{"t", templateJson(3)}}).dump();
  Json mistyped = {{"t", templateJson(3)}, {"u", templateJson(3)}};
  mistyped["u"]["tver"] = "3";
  for (const auto& bad : std::vector<UserDefaults::Value>{
           good, toBytes(good.substr(2)), toBytes("[]"), toBytes(mistyped.dump())}) {
    h.defaults.set(kKey, bad);
    restart();
    start();
    announce(3);
    serve(9);
    EXPECT_EQ(version(), 9);
  }
}

TEST_F(TemplateFetching, WithoutAnApplicationIdStopsTheProcess) {
  EXPECT_DEATH(version(), "no application id");
}

}  // namespace
}  // namespace kva
