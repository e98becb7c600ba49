#include "Report.h"

#include <glib.h>

#include <Kelvara/base/Json.h>
#include <platform/linux/GlibSupport.h>

#include <fstream>

namespace kva::preview {
namespace {

bool write(const std::filesystem::path& file, const std::string& text) {
  std::ofstream stream(file, std::ios::binary);
  stream << text << std::flush;
  return stream.good();
}

/// Text for XML, which has no control characters.
std::string escaped(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\t') c = '?';
  const GStringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  return GStringPtr(g_markup_escape_text(valid.get(), -1)).get();
}

std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const auto& line : lines) all += line + "\n";
  return all;
}

Json ruleJson(const RuleText& rule, const Observations& observations) {
  const auto& breaches = observations.breachesOf(rule.rule);
  return {{"id", rule.id},
          {"promise", rule.promise},
          {"passed", breaches.empty()},
          {"breaches", breaches}};
}

Json reportedJson(const sandbox::ReportRecord& reported) {
  return {{"impression", reported.impression}, {"clicked", reported.clicked},
          {"completed", reported.completed},   {"dismissed", reported.dismissed},
          {"quarter", reported.quarter},       {"failedToShow", reported.failToShow}};
}

}  // namespace

bool writeReport(const std::filesystem::path& file, const std::string& creative,
                 const Observations& observations,
                 const std::optional<sandbox::ReportRecord>& reported) {
  Json judged = Json::array(), records = Json::array();
  for (const auto& rule : rules()) judged.push_back(ruleJson(rule, observations));
  for (const auto& [seconds, source, text] : observations.records())
    records.push_back({{"seconds", seconds}, {"source", name(source)}, {"text", text}});
  const Json report = {{"creative", creative},
                       {"verdict", observations.isGood() ? "good" : "bad"},
                       {"rules", judged},
                       {"measured",
                        {{"readySeconds", observations.readySeconds},
                         {"weight", observations.weight()},
                         {"framesPerSecond", observations.page.value("framesPerSecond", 0.0)}}},
                       {"opened", observations.opened},
                       {"reported", reported ? reportedJson(*reported) : Json(nullptr)},
                       {"page", observations.page},
                       {"records", records}};
  return write(file, report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

bool writeJUnit(const std::filesystem::path& file, const std::string& creative,
                const Observations& observations) {
  std::string cases;
  int failures = 0;
  for (const auto& [rule, id, promise] : rules()) {
    const auto& breaches = observations.breachesOf(rule);
    cases += "  <testcase classname=\"" + escaped(creative) + "\" name=\"" + std::string(id) + "\"";
    if (breaches.empty()) {
      cases += "/>\n";
      continue;
    }
    ++failures;
    cases += "><failure message=\"" + escaped(std::string(promise)) + "\">" +
             escaped(joined(breaches)) + "</failure></testcase>\n";
  }
  return write(file,
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite "
               "name=\"kelvara-preview\" tests=\"" +
                   std::to_string(rules().size()) + "\" failures=\"" + std::to_string(failures) +
                   "\">\n" + cases + "</testsuite>\n");
}

std::string verdict(const std::string& creative, const Observations& observations) {
  std::string text = creative + (observations.isGood() ? ": good\n" : ": bad\n");
  for (const auto& [rule, id, promise] : rules()) {
    const auto& breaches = observations.breachesOf(rule);
    if (breaches.empty()) continue;
    text += "  " + std::string(id) + ": " + std::string(promise) + "\n";
    for (const auto& breach : breaches) text += "    " + breach + "\n";
  }
  return text;
}

}  // namespace kva::preview
