#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace kva::bench {

/// Samples of one quantity.
class Series {
 public:
  void add(double value) { values_.push_back(value); }
  /// Times `call`, which makes `count` calls, and adds the mean duration of one in microseconds.
  void time(const std::function<void()>& call, int count = 1) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::micro> taken =
        std::chrono::steady_clock::now() - begin;
    add(taken.count() / count);
  }
  /// The value below which `part` of the samples lie; 0.5 is the median.
  double at(double part) const {
    auto sorted = values_;
    std::ranges::sort(sorted);
    return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
  }
  double median() const { return at(0.5); }
  std::size_t size() const { return values_.size(); }
  const std::vector<double>& values() const { return values_; }

 private:
  std::vector<double> values_;
};

/// What a row must reach: `ours <= floor * ratio + plus` with a ratio, otherwise `ours <= plus`, or
/// `ours >= atLeast`.
struct Target {
  std::optional<double> ratio{}, atLeast{};
  double plus = 0;
};

/// Prints one row of the table as a line of JSON, which scripts/bench collects. `floor` is what the
/// bare library takes for the same work, if there is such a library.
inline void printRow(const std::string& what, const std::string& unit, double ours,
                     std::optional<double> floor, Target target) {
  nlohmann::ordered_json row{{"what", what}, {"unit", unit}, {"ours", ours}};
  if (floor) row["floor"] = *floor;
  if (target.ratio) row["target"]["ratio"] = *target.ratio;
  if (target.atLeast)
    row["target"]["atLeast"] = *target.atLeast;
  else
    row["target"]["plus"] = target.plus;
  std::puts(row.dump().c_str());
  std::fflush(stdout);  // the rows before a failure are kept
}

/// Prints a row of samples that were taken in turns: the pair whose ratio is the median of all.
/// What slows the machine for a while slows both samples of a pair.
inline void printRow(const std::string& what, const std::string& unit, const Series& ours,
                     const Series& floor, Target target) {
  std::vector<std::pair<double, double>> pairs;
  for (std::size_t i = 0; i < ours.size(); ++i)
    pairs.emplace_back(ours.values()[i], floor.values().at(i));
  const auto middle = pairs.begin() + static_cast<std::ptrdiff_t>((pairs.size() - 1) / 2);
  std::ranges::nth_element(pairs, middle, {},
                           [](const auto& pair) { return pair.first / pair.second; });
  printRow(what, unit, middle->first, middle->second, target);
}

}  // namespace kva::bench
