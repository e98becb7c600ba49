#include <gmock/gmock.h>

#include <fstream>

#include <Kelvara/KVAErrorCodes.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/platform/ErrorTable.h>
#include <Kelvara/platform/URLSession.h>

namespace kva {
namespace {

using testing::AllOf, testing::Contains, testing::EndsWith, testing::Field, testing::HasSubstr,
    testing::UnorderedElementsAreArray;

/// The rows of docs/errors.md, each after the heading that names its domain:
/// "## ...: domain Kelvara| name (code) | text | cause | remedy |". Without the marks of code.
std::vector<std::string> documented() {
  std::ifstream document(KELVARA_TEST_DATA "/../docs/errors.md");
  std::vector<std::string> rows;
  std::string heading;
  for (std::string line; std::getline(document, line);) {
    const bool isRow = line.starts_with("| `");
    line = replacingOccurrences(line, "`", "");
    if (line.starts_with("## ")) heading = line;
    if (isRow) rows.push_back(heading + line);
  }
  return rows;
}

TEST(Errors, AreDocumentedWithTheirRemedies) {
  std::vector<testing::Matcher<std::string>> known;
  for (const auto& [domain, code, text, hint] : knownErrors())
    known.push_back(AllOf(HasSubstr("domain " + std::string(domain) + "| "),
                          HasSubstr(" (" + std::to_string(code) + ") | " +
                                    std::string(text.empty() ? "the server's" : text) + " | "),
                          EndsWith(" | " + std::string(hint) + " |")));
  EXPECT_THAT(documented(), UnorderedElementsAreArray(known));
  for (int code = -1; const auto value = errorCodeFromRawValue(code); ++code) {
    if (value == KVAErrorCodes::unassigned) continue;  // never reported
    EXPECT_THAT(knownErrors(), Contains(Field(&KnownError::code, code)));
  }
}

TEST(Errors, GiveTheRemedyOfTheirCodeAndText) {
  const std::pair<Error, const char*> cases[] = {
      {{"Kelvara", 8, "Wait 12 seconds for ad request."}, "when this time has passed"},
      {{"Kelvara", 5, "No plan."}, "Nobody bids"},
      {{"Kelvara", 5, "No active plan."}, "frequency cap"},
      {{"Kelvara", 13, "No internet connection."}, "network is back"},
      {{"Kelvara", 404, "No such user."}, "registers a new user"},
      // A code of the server may be one of the SDK's.
      {{"Kelvara", 5, "Busy."}, "its message says why"},
      {{"WebKitPolicyError", 103, "Not allowed."}, "could not load the ad's page"},
  };
  for (const auto& [error, remedy] : cases)
    EXPECT_THAT(std::string(error.hint()), HasSubstr(remedy)) << error.localizedDescription();
  const auto lost = errorWithRemedy(kURLErrorDomain, 1005);
  EXPECT_EQ(lost.localizedDescription(), "The network connection was lost. Retry.");
  EXPECT_EQ(lost.hint(), "");
}

}  // namespace
}  // namespace kva
