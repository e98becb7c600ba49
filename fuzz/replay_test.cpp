// Runs every file of fuzz/corpus/<target> through its target. The corpus keeps every find.

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

using Run = int(const std::uint8_t* data, std::size_t size);

// The build gives each target's entry point its own name in this program.
extern "C" Run fuzz_commands, fuzz_replies, fuzz_requests, fuzz_stored_state;

namespace {

void replay(const char* target, Run* run) {
  const auto corpus = std::filesystem::path(KELVARA_TEST_DATA) / "../fuzz/corpus";
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus / target)) {
    std::ifstream stream(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    // A broken promise aborts the process; the last line names the input.
    std::fprintf(stderr, "%s %s\n", target, entry.path().filename().c_str());
    run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++files;
  }
  EXPECT_GT(files, 0) << target;
}

TEST(Replay, SurvivesEveryInputOfTheCorpora) {
  replay("commands", fuzz_commands);
  replay("replies", fuzz_replies);
  replay("requests", fuzz_requests);
  replay("stored_state", fuzz_stored_state);
}

}  // namespace
