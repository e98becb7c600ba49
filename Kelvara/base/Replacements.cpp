#include <Kelvara/base/Replacements.h>

#include <array>
#include <cstddef>
#include <cstdint>
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
      begins_[byte(replacement.target.front())] = true;
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
    enum { unknown, passes, stays } state = unknown;
    std::uint8_t size = 0;
    std::array<char, 2> result{};
  };

  static std::uint8_t byte(char c) { return static_cast<std::uint8_t>(c); }

  void write(std::size_t stage, std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
      if (holding_ > 0) {
        writeOne(stage, text[at++]);
        continue;
      }
      const std::size_t begun = at;
      while (at < text.size() && !begins_[byte(text[at])]) ++at;
      result_.append(text, begun, at - begun);
      if (at == text.size()) return;
      if (at + 1 < text.size() && stage == 0 && writePair(text[at], text[at + 1]))
        at += 2;
      else
        writeOne(stage, text[at++]);
    }
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
    auto& pairs = pairs_[byte(first)];
    if (pairs.empty()) pairs.resize(256);
    Pair& pair = pairs[byte(second)];
    if (pair.state == Pair::passes) result_.append(pair.result.data(), pair.size);
    if (pair.state != Pair::unknown) return pair.state == Pair::passes;

    const std::size_t before = result_.size();
    writeOne(0, first);
    writeOne(0, second);
    const std::size_t size = result_.size() - before;
    pair.state = holding_ == 0 && size <= pair.result.size() ? Pair::passes : Pair::stays;
    if (pair.state == Pair::passes) {
      pair.size = static_cast<std::uint8_t>(size);
      result_.copy(pair.result.data(), size, before);
    }
    return true;
  }

  std::vector<Stage> stages_;
  std::array<bool, 256> begins_{};  ///< by character: whether a target begins with it
  std::array<std::vector<Pair>, 256> pairs_;
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
