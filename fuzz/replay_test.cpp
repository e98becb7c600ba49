// Runs every file of fuzz/corpus/<target> through its target. The corpus keeps every find.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

using Run = int(const std::uint8_t* data, std::size_t size);

// The build gives each target's entry point its own name in this program.
extern "C" Run fuzz_commands, fuzz_replies, fuzz_requests, fuzz_stored_state, fuzz_templates;

namespace {

struct Target {
  const char* name;
  Run* run;

  friend void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }
};

class Replay : public testing::TestWithParam<Target> {};

TEST_P(Replay, SurvivesEveryInputOfTheCorpus) {
  int files = 0;
  const auto corpus = std::filesystem::path(KELVARA_TEST_DATA) / "../fuzz/corpus";
  for (const auto& entry : std::filesystem::directory_iterator(corpus / GetParam().name)) {
    std::ifstream stream(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    // A broken promise aborts the process; the last line names the input.
    std::fprintf(stderr, "%s\n", entry.path().filename().c_str());
    GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++files;
  }
  EXPECT_GT(files, 0);
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Replay,
                         testing::Values(Target{"commands", fuzz_commands},
                                         Target{"replies", fuzz_replies},
                                         Target{"requests", fuzz_requests},
                                         Target{"stored_state", fuzz_stored_state},
                                         Target{"templates", fuzz_templates}),
                         [](const auto& target) { return std::string(target.param.name); });

}  // namespace
