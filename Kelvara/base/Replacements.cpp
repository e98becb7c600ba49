#include <Kelvara/base/Replacements.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace kva {
namespace {

/// A chain with a stage for each replacement. A stage holds back the beginning of its target until
/// it is complete or cannot be completed, and passes all other text to the next stage.
///
/// Almost all text goes past the stages: while none holds anything back, only a character that
/// begins a target can have an effect.
class Chain {
 public:
  Chain(std::span<const Replacement> replacements, std::size_t expectedSize) {
    for (const auto& replacement : replacements) {
      stages_.push_back({replacement});
      auto& pairs = pairs_[byte(replacement.target.front())];
      if (!pairs) pairs = std::make_unique<Pairs>();
    }
    result_.reserve(expectedSize);
  }

  void write(std::string_view text) { write(0, text); }
  /// Ends the text and returns the result.
  std::string finish() {
    for (std::size_t i = 0; i < stages_.size(); ++i) passHeldBack(i);
    return std::move(result_);
  }

 private:
  struct Stage {
    Replacement replacement;
    std::size_t held = 0;  ///< the number of characters of the target
  };
  /// What becomes of two characters that follow when no stage holds anything back.
  struct Pair {
    enum : std::uint8_t { unknown, unchanged, changed, stays } state = unknown;
    std::uint8_t size = 0;
    std::array<char, 2> result{};
  };
  using Pairs = std::array<Pair, 256>;  ///< by the second character

  static std::uint8_t byte(char c) { return static_cast<std::uint8_t>(c); }

  void write(std::size_t stage, std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
      if (holding_ == 0) {
        const std::size_t begun = at;
        at = skip(stage, text, at);
        result_.append(text, begun, at - begun);
        if (at == text.size()) return;
        if (stage == 0 && at + 1 < text.size() && writePair(text[at], text[at + 1])) {
          at += 2;
          continue;
        }
      }
      writeOne(stage, text[at++]);
    }
  }

  /// The end of the text from `at` on that the stages leave as it is.
  std::size_t skip(std::size_t stage, std::string_view text, std::size_t at) const {
    for (; at < text.size(); ++at) {
      const auto& pairs = pairs_[byte(text[at])];
      if (!pairs) continue;
      if (stage != 0 || at + 1 == text.size()) break;
      if ((*pairs)[byte(text[at + 1])].state != Pair::unchanged) break;
      ++at;
    }
    return at;
  }

  void writeOne(std::size_t i, char c) {
    for (; i < stages_.size(); ++i) {
      auto& [replacement, held] = stages_[i];
      if (c != replacement.target[held]) {
        if (held == 0) continue;
        passHeldBack(i);
        if (c != replacement.target.front()) continue;
      }
      if (held == 0) ++holding_;
      if (++held < replacement.target.size()) return;
      held = 0;
      --holding_;
      return write(i + 1, replacement.value);
    }
    result_ += c;
  }

  void passHeldBack(std::size_t i) {
    const auto [replacement, held] = stages_[i];
    if (held == 0) return;
    stages_[i].held = 0;
    --holding_;
    write(i + 1, replacement.target.substr(0, held));
  }

  /// Writes two characters if they leave nothing held back; remembers the outcome of each pair.
  bool writePair(char first, char second) {
    Pair& pair = (*pairs_[byte(first)])[byte(second)];
    if (pair.state == Pair::changed) result_.append(pair.result.data(), pair.size);
    if (pair.state != Pair::unknown) return pair.state == Pair::changed;

    const std::size_t before = result_.size();
    writeOne(0, first);
    writeOne(0, second);
    const auto result = std::string_view(result_).substr(before);
    if (holding_ > 0 || result.size() > pair.result.size())
      pair.state = Pair::stays;
    else
      pair.state = result == std::string{first, second} ? Pair::unchanged : Pair::changed;
    if (pair.state == Pair::changed) {
      pair.size = static_cast<std::uint8_t>(result.size());
      result.copy(pair.result.data(), result.size());
    }
    return true;
  }

  std::vector<Stage> stages_;
  std::array<std::unique_ptr<Pairs>, 256> pairs_;  ///< by a character that begins a target
  int holding_ = 0;  ///< the number of stages that hold something back
  std::string result_;
};

}  // namespace

std::string replacingInOrder(std::string_view text, std::span<const Replacement> replacements) {
  constexpr std::size_t kTimes = 4;  // how often a value is expected
  std::size_t expectedSize = text.size();
  for (const auto& replacement : replacements) expectedSize += kTimes * replacement.value.size();
  Chain chain(replacements, expectedSize);
  chain.write(text);
  return chain.finish();
}

}  // namespace kva
