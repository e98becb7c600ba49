#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Main thread only.
namespace kva::preview {

/// What a creative is judged by. `docs/preview.md` explains each rule to its users.
enum class Rule {
  plays,
  errors,
  listeners,
  taps,
  commands,
  escapes,
  corners,
  sound,
  files,
  readyTime,
  weight,
  frameRate,
};
struct RuleText {
  Rule rule;
  std::string_view id, promise;
};
/// All rules, in the order of reports.
std::span<const RuleText> rules();

struct Limits {
  double readySeconds = 5;
  std::int64_t weight = 5'000'000;  ///< bytes of the document and all that it loads
  double framesPerSecond = 15;      ///< as a pause weighs by its length
};

/// Where a record comes from.
enum class Source { sdk, page, console, network, host };
std::string_view name(Source source);

struct Record {
  double seconds;  ///< since the first record
  Source source;
  std::string text;
};

/// All that was seen of one creative's life.
class Observations {
 public:
  void note(Source source, std::string text);
  /// Records a breach of `rule`. The same text counts once.
  void breach(Rule rule, const std::string& text);
  const std::vector<std::string>& breachesOf(Rule rule) const;
  bool isGood() const { return breaches_.empty(); }
  const std::vector<Record>& records() const { return records_; }
  /// Bytes of the document and all that it has loaded.
  std::int64_t weight() const;
  void addSize(const std::string& address, std::int64_t size);

  /// Compares the measured values below with the limits.
  void judge(const Limits& limits);

  /// Called after each record and each change of `page`.
  std::function<void()> changed;

  nlohmann::json page = nlohmann::json::object();  ///< the page's latest state, from the probe
  std::vector<std::string> opened;                 ///< addresses that the SDK opened
  double readySeconds = 0;                         ///< from the page's load to the loaded ad
  /// Bytes by address. A medium is loaded in parts, some of them twice, so its largest part counts.
  std::map<std::string, std::int64_t> sizes;
  bool hasEndedVideo = false;  ///< the page has reported the end of its video

 private:
  std::vector<Record> records_;
  std::map<Rule, std::vector<std::string>> breaches_;
  std::int64_t begun_ = 0;
};

}  // namespace kva::preview
