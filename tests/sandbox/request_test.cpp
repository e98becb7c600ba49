#include <gtest/gtest.h>

#include <functional>

#include "sandbox/Client.h"
#include "sandbox/Schema.h"

namespace kva::sandbox {
namespace {

RawRequest goodRequest(const std::string& endpoint) {
  const Json body = endpoint == "/register"    ? userRecord()
                    : endpoint == "/bid/load"  ? loadRequest(kSomeUUID, kSomeUUID)
                    : endpoint == "/bid/stats" ? statsRequest(kSomeUUID, {report(kSomeUUID)})
                                               : trackRequest("");
  return {.method = "POST",
          .path = endpoint,
          .query = {},
          .accept = "application/json",
          .contentType = "application/json",
          .body = body.dump()};
}

std::string problemOf(const RawRequest& request) {
  auto checked = checkRequest(request);
  return checked ? "ok" : checked.error();
}

TEST(SandboxRequest, NamesTheWrongFieldAndTheExpectedValue) {
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
      {"/track", {{"eid", 5}}, "eid: expected a string or null, got 5"},
  };
  for (const auto& row : table) {
    RawRequest request = goodRequest(row.endpoint);
    ASSERT_EQ(problemOf(request), "ok") << row.endpoint;
    Json body = Json::parse(request.body);
    body.merge_patch(row.changes);
    request.body = body.dump();
    EXPECT_EQ(problemOf(request), row.message);
    EXPECT_EQ(contract::Contract::current().checkRequest(row.endpoint, body).size(), 1u)
        << "reported more than once: " << row.message;
  }
}

TEST(SandboxRequest, ChecksMethodPathHeadersAndQuery) {
  const auto get = [](RawRequest& request, const char* version) {
    request.method = "GET";
    request.path = "/template";
    request.body.clear();
    request.query = {{"aid", kSomeUUID}, {"tmpl", "t"}, {"tver", version}};
  };
  const struct {
    std::function<void(RawRequest&)> spoil;
    const char* message;
  } table[] = {
      {[](auto& r) { r.path = "/nowhere"; }, "path: no endpoint /nowhere"},
      {[](auto& r) { r.method = "GET"; }, "method: expected POST, got GET"},
      {[](auto& r) { r.accept = "*/*"; }, "Accept: expected application/json, got \"*/*\""},
      {[](auto& r) { r.contentType = "text/plain"; },
       "Content-Type: expected application/json, got \"text/plain\""},
      {[](auto& r) { r.body = "{"; }, "body: expected an object, got no JSON"},
      {[](auto& r) { r.body = "[1]"; }, "body: expected an object, got [1]"},
      {[](auto& r) {
         r.query = {{"aid", kSomeUUID}};
       },
       "query: expected none with POST"},
      {[&](auto& r) { get(r, "3"); }, "ok"},
      {[&](auto& r) { get(r, "3"), r.body = "{}"; }, "body: expected none with GET"},
      {[&](auto& r) { get(r, "3x"); }, "tver: expected an integer, got \"3x\""},
      {[&](auto& r) { get(r, "3"), r.query.emplace("aid", "x"); }, "aid: given twice"},
  };
  for (const auto& row : table) {
    RawRequest request = goodRequest("/track");
    row.spoil(request);
    EXPECT_EQ(problemOf(request), row.message);
  }
}

}  // namespace
}  // namespace kva::sandbox
