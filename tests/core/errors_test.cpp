#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <Kelvara/KVAErrorCodes.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/platform/ErrorTable.h>
#include <Kelvara/platform/URLSession.h>

namespace kva {
namespace {

using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::UnorderedElementsAreArray;

/// Domain, code, text ("" for the server's), remedy.
using Row = std::tuple<std::string, std::int64_t, std::string, std::string>;

/// The rows of docs/errors.md: | `name` (code) | text | cause | remedy |, under a heading that
/// names the domain. Remedies are without their marks.
std::vector<Row> documented() {
  std::ifstream document(KELVARA_TEST_DATA "/../docs/errors.md");
  std::vector<Row> rows;
  std::string domain;
  for (std::string line; std::getline(document, line);) {
    if (const auto name = line.find('`') + 1; line.starts_with("## ") && name > 0)
      domain = line.substr(name, line.find('`', name) - name);
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '|');)
      cells.push_back(cell.size() < 2 ? "" : cell.substr(1, cell.size() - 2));
    const auto code = cells.size() == 5 ? cells[1].find("` (") : std::string::npos;
    if (code == std::string::npos) continue;
    rows.emplace_back(domain, std::stoll(cells[1].substr(code + 3)),
                      cells[2] == "the server's" ? "" : cells[2],
                      replacingOccurrences(cells[4], "`", ""));
  }
  return rows;
}

TEST(Errors, AreDocumentedWithTheirRemedies) {
  std::vector<Row> known;
  for (const auto& [domain, code, text, hint] : knownErrors())
    known.emplace_back(domain, code, text, hint);
  EXPECT_THAT(documented(), UnorderedElementsAreArray(known));
  for (int code = -1; const auto value = errorCodeFromRawValue(code); ++code) {
    if (value == KVAErrorCodes::unassigned) continue;  // never reported
    EXPECT_THAT(knownErrors(), Contains(Field(&KnownError::code, code)));
  }
}

TEST(Errors, GiveTheRemedyOfTheirCodeAndText) {
  const struct {
    Error error;
    const char* remedy;
  } cases[] = {
      {{"Kelvara", 8, "Wait 12 seconds for ad request."}, "when this time has passed"},
      {{"Kelvara", 5, "No plan."}, "Nobody bids"},
      {{"Kelvara", 5, "No active plan."}, "frequency cap"},
      {{"Kelvara", 13, "No internet connection."}, "network is back"},
      {{"Kelvara", 404, "No such user."}, "registers a new user"},
      // A code of the server may be one of the SDK's.
      {{"Kelvara", 5, "Busy."}, "its message says why"},
      {{"WebKitPolicyError", 103, "Not allowed."}, "could not load the ad's page"},
  };
  for (const auto& [error, remedy] : cases) {
    EXPECT_THAT(std::string(error.hint()), HasSubstr(remedy)) << error.localizedDescription();
  }
  const auto lost = errorWithRemedy(kURLErrorDomain, 1005);
  EXPECT_EQ(lost.localizedDescription(), "The network connection was lost. Retry.");
  EXPECT_EQ(lost.hint(), "");
  const auto page = errorWithRemedy(kURLErrorDomain, 1001, "The page has not loaded in time.");
  EXPECT_THAT(page.localizedDescription(), HasSubstr("in time. Load the ad of a new bid."));
}

}  // namespace
}  // namespace kva
