// Feeds every file of fuzz/corpus/<target> to its target. Whatever a fuzzer has found is kept
// there.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// The targets' entries, under the names that they have in this program.
extern "C" {
int fuzz_commands(const std::uint8_t* data, std::size_t size);
int fuzz_replies(const std::uint8_t* data, std::size_t size);
int fuzz_requests(const std::uint8_t* data, std::size_t size);
int fuzz_stored_state(const std::uint8_t* data, std::size_t size);
int fuzz_templates(const std::uint8_t* data, std::size_t size);
}

namespace {

struct Target {
  const char* name;
  int (*run)(const std::uint8_t* data, std::size_t size);

  friend void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }
};

class Replay : public testing::TestWithParam<Target> {};

std::vector<std::filesystem::path> corpus(const char* target) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::filesystem::path(KELVARA_TEST_DATA) / "../fuzz/corpus" / target))
    files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

TEST_P(Replay, StandsEveryInputOfTheCorpus) {
  const auto files = corpus(GetParam().name);
  ASSERT_FALSE(files.empty());
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    // A find stops the process: this names it.
    std::fprintf(stderr, "%s\n", file.filename().c_str());
    EXPECT_EQ(GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), 0);
  }
}

constexpr Target kTargets[] = {{"commands", fuzz_commands},
                               {"replies", fuzz_replies},
                               {"requests", fuzz_requests},
                               {"stored_state", fuzz_stored_state},
                               {"templates", fuzz_templates}};
INSTANTIATE_TEST_SUITE_P(Fuzz, Replay, testing::ValuesIn(kTargets),
                         [](const auto& target) { return std::string(target.param.name); });

}  // namespace
