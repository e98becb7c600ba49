#include <gtest/gtest.h>

#include "sandbox/Client.h"
#include "sandbox/Schema.h"

namespace kva::sandbox {
namespace {

Json goodBody(const std::string& endpoint) {
  if (endpoint == "/register") return userRecord();
  if (endpoint == "/bid/load") return loadRequest(kSomeUUID, kSomeUUID);
  if (endpoint == "/bid/stats") return statsRequest(kSomeUUID, {report(kSomeUUID)});
  return trackRequest("");
}

RawRequest goodRequest(const std::string& endpoint) {
  return {.method = "POST",
          .path = endpoint,
          .query = {},
          .accept = "application/json",
          .contentType = "application/json",
          .body = goodBody(endpoint).dump()};
}

std::string problemOf(const RawRequest& request) {
  auto checked = checkRequest(request);
  return checked ? "ok" : checked.error();
}

TEST(SandboxRequest, NamesTheFieldThatIsWrongAndWhatItExpected) {
  Json shortReport = report(kSomeUUID), numberedFlag = report(kSomeUUID);
  shortReport.erase("fts");
  numberedFlag["imp"] = 1;
  const struct {
    const char* endpoint;
    Json changes;  // merged into a good body; null removes
    const char* message;
  } table[] = {
      {"/register", {{"tzn", nullptr}}, "tzn: missing, expected a string"},
      {"/register", {{"aid", "x"}}, "aid: expected a UUID, got \"x\""},
      {"/register", {{"sdkv", "1.2."}}, "sdkv: expected a version such as \"1.2.0\", got \"1.2.\""},
      {"/register", {{"conn", "4"}}, "conn: expected one of 2g|3g|4g, got \"4\""},
      {"/register", {{"cnst", 2}}, "cnst: expected an integer from -1 to 1, got 2"},
      {"/register", {{"gdpr", 1.5}}, "gdpr: expected an integer from -1 to 2, got 1.5"},
      {"/register", {{"ccpa", true}}, "ccpa: expected an integer from -1 to 2, got true"},
      {"/register", {{"idfa", "-"}}, "idfa: expected a UUID or the empty string, got \"-\""},
      {"/register", {{"gsm", 5}}, "gsm: expected a string, got 5"},
      {"/register", {{"dmod", "m"}}, "dmod: not expected here"},
      {"/bid/load",
       {{"recpm", UINT64_MAX}},
       "recpm: expected an integer from 0, got 1.8446744073709552e+19"},
      {"/bid/stats",
       {{"stats", Json::array()}},
       "stats: expected a list of at least one object, got []"},
      {"/bid/stats", {{"stats", {report(kSomeUUID), 5}}}, "stats[1]: expected an object, got 5"},
      {"/bid/stats", {{"stats", {shortReport}}}, "stats[0].fts: missing, expected true or false"},
      {"/bid/stats", {{"stats", {numberedFlag}}}, "stats[0].imp: expected true or false, got 1"},
      {"/bid/stats", {{"idfa", ""}}, "idfa: expected a UUID, got \"\""},
      {"/track", {{"eid", 5}}, "eid: expected a string or null, got 5"},
      {"/track", {{"dmob", "m"}}, "dmob: not expected here"},
  };
  for (const auto& row : table) {
    RawRequest request = goodRequest(row.endpoint);
    ASSERT_EQ(problemOf(request), "ok") << row.endpoint;
    Json body = goodBody(row.endpoint);
    body.merge_patch(row.changes);
    request.body = body.dump();
    EXPECT_EQ(problemOf(request), row.message);
    EXPECT_EQ(contract::Contract::current().checkRequest(row.endpoint, body).size(), 1u)
        << "one fault is named once, " << row.message;
  }
}

TEST(SandboxRequest, ChecksWhatSurroundsTheFields) {
  auto spoiled = [](auto member, auto value) {
    RawRequest request = goodRequest("/track");
    request.*member = value;
    return problemOf(request);
  };
  EXPECT_EQ(spoiled(&RawRequest::path, "/nowhere"), "path: no endpoint /nowhere");
  EXPECT_EQ(spoiled(&RawRequest::method, "GET"), "method: expected POST, got GET");
  EXPECT_EQ(spoiled(&RawRequest::accept, "*/*"), "Accept: expected application/json, got \"*/*\"");
  EXPECT_EQ(spoiled(&RawRequest::contentType, "text/plain"),
            "Content-Type: expected application/json, got \"text/plain\"");
  EXPECT_EQ(spoiled(&RawRequest::body, "{"), "body: expected an object, got no JSON");
  EXPECT_EQ(spoiled(&RawRequest::body, "[1]"), "body: expected an object, got [1]");

  RawRequest query = goodRequest("/track");
  query.query = {{"aid", kSomeUUID}, {"tmpl", "t"}, {"tver", "3"}};
  EXPECT_EQ(problemOf(query), "query: expected none with POST");
  query.method = "GET";
  query.path = "/template";
  EXPECT_EQ(problemOf(query), "body: expected none with GET");
  query.body.clear();
  EXPECT_EQ(problemOf(query), "ok");
  query.query.find("tver")->second = "3x";
  EXPECT_EQ(problemOf(query), "tver: expected an integer, got \"3x\"");
  query.query.emplace("aid", kSomeUUID);
  EXPECT_EQ(problemOf(query), "aid: given twice");
}

}  // namespace
}  // namespace kva::sandbox
