#include <Kelvara/ads/AdHelper.h>
#include <Kelvara/ads/TemplateManager.h>
#include <presentation/Stage.h>

namespace kva {
namespace {

using namespace std::string_literals;
using enum DeviceOrientation;

constexpr const char* kTemplates = SDKHelper::UserDefaultKeys::templates;

/// An ad with every member.
const Json kAd = Json::parse(R"({
  "bid": "bid", "tmpl": "t1",
  "crea": {"id": "c1", "adt": "rewarded", "ctyp": "video", "adur": 5, "titl": "Title",
           "bton": "{\"en\": \"Install\", \"tr\": \"Kur\"}", "deta": "{\"tr\": \"Ayrinti\"}",
           "curl": "https://click.test/?a=1", "icon": "a://icon", "shouldCareSafeArea": true},
  "fls": [{"id": "f1", "furl": "a://main", "ornt": "landscape", "ftyp": "main"},
          {"id": "f2", "furl": "a://end", "ornt": "portrait", "ftyp": "end_card"}]})");

class Ads : public Stage {  // decoding may write to the log
 protected:
  static Result<Ad> adWith(const char* member, const Json& value) {
    return Ad::decode(
        kAd.patch({{{"op", "replace"}, {"path", std::string(member)}, {"value", value}}}));
  }
  Ad ad = *Ad::decode(kAd);
};

TEST_F(Ads, RequireEveryMemberExceptLinksAndTexts) {
  for (const char* member : {"/bid", "/tmpl", "/crea", "/fls", "/crea/id", "/crea/adt",
                             "/crea/ctyp", "/crea/adur", "/crea/titl", "/crea/bton", "/crea/deta",
                             "/fls/0/id", "/fls/1/furl", "/fls/1/ornt", "/fls/0/ftyp"}) {
    for (const Json& wrong : {Json(), Json::array({5.5})})
      EXPECT_FALSE(adWith(member, wrong)) << member << wrong;
  }
  for (const char* member : {"/crea/adt", "/crea/ctyp", "/fls/0/ftyp"})
    EXPECT_FALSE(adWith(member, "unknown")) << member;
  EXPECT_FALSE(adWith("/fls/0/furl", "http://["));
  EXPECT_FALSE(BidLoadResponse::decode({{"bid", "b"}}));

  for (const Json& noLink : {Json(), Json(""), Json("http://["), Json(7)}) {
    EXPECT_EQ(adWith("/crea/curl", noLink)->creative.clickUrl, std::nullopt) << noLink;
    EXPECT_EQ(adWith("/crea/icon", noLink)->creative.iconUrl, std::nullopt) << noLink;
  }
  EXPECT_FALSE(adWith("/crea/shouldCareSafeArea", Json())->creative.shouldCareSafeArea);
  for (const char* noTexts : {"[]", R"({"en": 1})"})
    EXPECT_EQ(adWith("/crea/bton", noTexts)->creative.buttonTitle("en"), "") << noTexts;
  EXPECT_EQ(h.output.count("<KVA> [E]: convert json to dict: "), 0) << "JSON of another shape";
  EXPECT_EQ(adWith("/crea/bton", "{")->creative.buttonTitle("en"), "");
  EXPECT_EQ(h.output.count("<KVA> [E]: convert json to dict: "), 1);

  Json expected = kAd;
  for (const char* texts : {"bton", "deta"})
    expected["crea"][texts] = Json::parse(expected["crea"][texts].get<std::string>());
  EXPECT_EQ(ad.toJson(), expected) << "texts are encoded as objects";
}

TEST_F(Ads, FillEveryPlaceholderInOrderAndUnescapeLast) {
  h.locale.set({.preferredLanguages = {"tr-TR", "en-US"}});
  const std::string html =
      "[@CLICK_URL] [@MAIN_ASSET] [@END_CARD_IMAGE] [@ICON_IMAGE] [@DESCRIPTION_TEXT] "
      "[@TITLE_TEXT] [@CTA_TEXT][@CTA_TEXT] [@cta_text]";
  EXPECT_EQ(AdHelper::finalize(html, ad),
            "https://click.test/?a=1 a://main a://end a://icon Ayrinti Title KurKur [@cta_text]");
  ad.creative.title = R"(<b>"it's"</b> $1 \1 [@CTA_TEXT] [@DESCRIPTION_TEXT])";
  ad.creative.buttonTexts = {{"en", R"(a\nb\\t\"c\" \'\r\0\x \)"}};
  // "\\t" contains "\t", which is unescaped before the doubled backslash.
  EXPECT_EQ(AdHelper::finalize("[@TITLE_TEXT]", ad),
            "<b>\"it's\"</b> $1 \\1 a\nb\\\t\"c\" '\r\0\\x \\ [@DESCRIPTION_TEXT]"s);
  ad.files.reset();
  ad.creative = {};
  EXPECT_EQ(AdHelper::finalize(html, ad), " [@MAIN_ASSET] [@END_CARD_IMAGE]     [@cta_text]");
  ad.creative.title = "Title";
  EXPECT_EQ(AdHelper::finalize("[@TITLE_[@CLICK_URL]TEXT]\\[@CLICK_URL]n", ad), "Title\n")
      << "a replacement may complete a later placeholder or escape";
  for (const char* unfinished : {"[@TITLE_TEXT", "\\", "[@TITLE_TEX[@", "[[@CTA_TEXT"})
    EXPECT_EQ(AdHelper::finalize(unfinished, ad), unfinished);
}

TEST_F(Ads, ChooseForEachTypeTheLastFileForTheOrientationElseTheFirst) {
  const std::tuple<DeviceOrientation, std::vector<const char*>, std::string> cases[] = {
      {portraitUpsideDown, {"landscape", "portrait"}, "a://1 a://1"},
      {faceUp, {"portrait", "landscape"}, "a://1 a://1"},
      {portrait, {"portrait", "portrait", "landscape"}, "a://1 a://1"},
      {unknown, {"portrait", "Landscape"}, "a://0 a://0"}};
  for (const auto& [orientation, orientationsOfFiles, chosen] : cases) {
    h.device.setOrientation(orientation);
    ad.files->clear();
    for (const auto type : {CreativeFile::FileType::main, CreativeFile::FileType::endCard})
      for (std::size_t i = 0; i < orientationsOfFiles.size(); ++i)
        ad.files->push_back(
            {"f", *URL::parse("a://" + std::to_string(i)), orientationsOfFiles[i], type});
    EXPECT_EQ(AdHelper::finalize("[@MAIN_ASSET] [@END_CARD_IMAGE]", ad), chosen)
        << static_cast<int>(orientation);
  }
}

TEST_F(Ads, PickTheTextForTheFirstPreferredLanguage) {
  using Languages = std::vector<std::string>;
  const std::tuple<Languages, LocalizedTexts, std::optional<std::string>> cases[] = {
      {{"tr-TR", "en"}, {{"en", "English"}, {"tr", "Turkish"}}, "Turkish"},
      {{"zh-Hant", "en"}, {{"an", "Aragonese"}, {"zh", "Chinese"}}, "Aragonese"},
      {{}, {{"de", "German"}, {"en", "English"}}, "English"},
      {{"de-DE"}, {{"tr", "Turkish"}}, "Turkish"},
      {{"en"}, {}, std::nullopt}};
  for (const auto& [languages, texts, picked] : cases) {
    h.locale.set({.preferredLanguages = languages});
    EXPECT_EQ(AdHelper::localizedString(texts), picked) << Json(texts);
  }
}

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

TEST_F(TemplateFetching, UsesTheStoredCopyOnlyForAnAnnouncedVersionAlsoAfterARestart) {
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

  const Json valid = {{"t", templateJson(4)}};
  EXPECT_EQ(stored(kTemplates), valid) << "stored under the requested identifier";
  Json malformed = valid;
  malformed["u"] = templateJson("3");
  serve(9);
  for (const auto& [templates, answer] : {std::pair(valid, 4), std::pair(malformed, 9)}) {
    h.defaults.set(kTemplates, toBytes(templates.dump()));
    launch();
    announce(4);
    EXPECT_EQ(versions(), Versions{answer});
  }
  restart();
  EXPECT_DEATH(versions(), "no application id");
}

}  // namespace
}  // namespace kva
