#include "Observations.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>

namespace kva::preview {
namespace {

// A page that floods the bridge or its console must not fill the memory.
constexpr std::size_t kMostRecords = 5000;
constexpr std::size_t kMostBreaches = 20;

constexpr RuleText kRules[] = {
    {Rule::plays, "plays", "The ad becomes ready, is shown, finishes and closes"},
    {Rule::errors, "errors", "No script fails and nothing is written to console.error"},
    {Rule::listeners, "listeners", "No MRAID listener throws"},
    {Rule::taps, "taps", "Nothing is opened before the user taps the ad"},
    {Rule::commands, "commands", "The page calls only what the SDK supports"},
    {Rule::escapes, "escapes", "The document has no escapes that the assembly rewrites"},
    {Rule::corners, "corners", "The corners of the controls are free"},
    {Rule::sound, "sound", "The page is silent until it is viewable"},
    {Rule::files, "files", "Every file that the page asks for is loaded"},
    {Rule::readyTime, "ready-time", "The page is ready in time"},
    {Rule::weight, "weight", "The page is small enough"},
    {Rule::frameRate, "frame-rate", "The page is drawn smoothly"},
};

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

}  // namespace

std::span<const RuleText> rules() { return kRules; }

std::string_view name(Source source) {
  switch (source) {
    case Source::sdk:
      return "sdk";
    case Source::page:
      return "page";
    case Source::console:
      return "console";
    case Source::network:
      return "network";
    case Source::host:
      return "host";
  }
  return {};
}

void Observations::note(Source source, std::string text) {
  const std::int64_t now = g_get_monotonic_time();
  if (records_.empty()) begun_ = now;
  if (records_.size() + 1 == kMostRecords) text = "no more is recorded";
  if (records_.size() < kMostRecords)
    records_.push_back({static_cast<double>(now - begun_) / 1e6, source, std::move(text)});
  if (changed) changed();
}

void Observations::breach(Rule rule, const std::string& text) {
  auto& known = breaches_[rule];
  if (known.size() >= kMostBreaches || std::ranges::find(known, text) != known.end()) return;
  known.push_back(text);
  const auto found = std::ranges::find(kRules, rule, &RuleText::rule);
  note(Source::host, "breaks the rule " + std::string(found->id) + ": " + text);
}

const std::vector<std::string>& Observations::breachesOf(Rule rule) const {
  static const std::vector<std::string> kNone;
  const auto found = breaches_.find(rule);
  return found == breaches_.end() ? kNone : found->second;
}

std::int64_t Observations::weight() const {
  std::int64_t sum = 0;
  for (const auto& [address, size] : sizes) sum += size;
  return sum;
}

void Observations::addSize(const std::string& address, std::int64_t size) {
  auto& largest = sizes[address];
  largest = std::max(largest, size);
}

void Observations::judge(const Limits& limits) {
  if (readySeconds > limits.readySeconds)
    breach(Rule::readyTime, "ready after " + number(readySeconds) + " s; the limit is " +
                                number(limits.readySeconds) + " s");
  if (weight() > limits.weight)
    breach(Rule::weight, std::to_string(weight()) + " bytes; the limit is " +
                             std::to_string(limits.weight) + " bytes");
  if (!page.contains("framesPerSecond")) return;
  const double rate = page["framesPerSecond"];
  if (rate < limits.framesPerSecond)
    breach(Rule::frameRate, number(rate) + " frames a second while the ad was shown; at least " +
                                number(limits.framesPerSecond) + " are asked for");
}

}  // namespace kva::preview
