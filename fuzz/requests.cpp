// Input of the sandbox server: requests, and scenarios as text and as JSON.
// Input: "METHOD /path?query", a line with Accept, a line with Content-Type, then the body. The
// target also reads the whole input as a scenario, and the body as a scenario in JSON.

#include <fuzz/Target.h>
#include <sandbox/Envelope.h>
#include <sandbox/ReadJson.h>
#include <sandbox/Scenario.h>
#include <sandbox/Schema.h>

namespace kva::fuzz {
namespace {

using Json = nlohmann::json;

sandbox::RawRequest takeRequest(std::string_view rest) {
  auto target = cut(rest, "\n");
  sandbox::RawRequest request;
  request.method = cut(target, " ");
  request.path = cut(target, "?");
  while (!target.empty()) {
    auto piece = cut(target, "&");
    const std::string key(cut(piece, "="));
    request.query.emplace(key, piece);
  }
  request.accept = cut(rest, "\n");
  request.contentType = cut(rest, "\n");
  request.body = rest;
  return request;
}

void check(const sandbox::RawRequest& request) {
  const auto checked = sandbox::checkRequest(request);
  if (!checked) {
    expect(!checked.error().empty(), "a refusal says why");
    return;
  }
  expect(sandbox::findEndpoint(request.path) && checked->is_object(),
         "an accepted request is an object of an endpoint");
  const auto& schema = contract::Contract::current().requestSchema(request.path);
  for (const std::string key : schema["required"])
    expect(checked->contains(key), "an accepted request has every field");
}

/// A scenario is equal after a round trip through JSON, and every answer under it has a verdict.
void play(const sandbox::expected<sandbox::Scenario, std::string>& read) {
  if (!read) return expect(!read.error().empty(), "a refusal says why");
  const Json json = read->toJson();
  const auto again = sandbox::Scenario::fromJson(json);
  expect(again && again->toJson() == json, "a scenario is equal after a round trip");
  const Json data = {{"bid", "bid"}, {"plans", {{{"plan", "p"}, {"ecpm", 1}}}}};
  for (const auto& result :
       {sandbox::Service::Result(data),
        sandbox::Service::Result(sandbox::unexpected(sandbox::Refusal{404, "No such user."}))}) {
    const auto envelope = sandbox::Envelope::of(result, 1, *read);
    expect(!envelope.verdict.empty(), "an answer has a verdict");
  }
}

}  // namespace
}  // namespace kva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kva;
  const auto text = fuzz::text(data, size);
  const auto request = fuzz::takeRequest(text);
  fuzz::check(request);
  fuzz::play(sandbox::Scenario::parse(text));
  const auto body = sandbox::readJson(request.body);
  if (body && body->is_object()) fuzz::play(sandbox::Scenario::fromJson(*body));
  return 0;
}
