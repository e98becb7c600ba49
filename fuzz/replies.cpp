// The ad server's answers: the envelope, every record in it, and the calls that read them.
// Input: the body of an answer. Every decoder also reads the body, and its "data", as a record.

#include <nlohmann/json.hpp>

#include <Kelvara/ads/AdHelper.h>
#include <Kelvara/ads/Template.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/reporting/BidReport.h>
#include <Kelvara/user/Application.h>
#include <Kelvara/user/CurrentUser.h>
#include <fuzz/Device.h>
#include <fuzz/Target.h>

namespace kva::fuzz {
namespace {

template <class T>
Result<T> throughText(const T& record) {
  const auto json = parseJson(record.toJson().dump());
  expect(json.has_value(), "an encoded record is JSON");
  return T::decode(*json);
}

/// For stored records: an encoded record decodes to an equal one.
template <class T>
void decodeAndBack(const Json& json) {
  const auto record = T::decode(json);
  if (!record) return;
  const auto again = throughText(*record);
  expect(again && *again == *record, "a record decodes to the one that was encoded");
}

void decodeApplication(const Json& json) {
  const auto application = Application::decode(json);
  if (!application) return;
  auto again = throughText(*application);
  expect(again.has_value(), "an encoded application decodes");
  again->setting = application->setting;  // decode() reads its periods in hundredths
  for (auto& tester : again->testers) expect(!tester.isTestSuiteEnabled, "no server says so");
  expect(*again == *application, "an application keeps everything but its periods");
}

void decodeAd(const Json& json) {
  const auto ad = Ad::decode(json);
  if (!ad) return;
  expect(ad->files.has_value(), "a decoded ad has files");
  const std::string encoded = ad->toJson().dump();
  expect(parseJson(encoded).has_value(), "an encoded ad is JSON");
  AdHelper::finalize(encoded, *ad);  // placeholders and escapes of the input's texts
  const std::string plain = "<h1>Title</h1>";
  expect(AdHelper::finalize(plain, *ad) == plain, "only placeholders and escapes change");
}

void decodeEverything(const Json& json) {
  decodeApplication(json);
  decodeAd(json);
  decodeAndBack<Plan>(json);
  decodeAndBack<Tester>(json);
  decodeAndBack<Template>(json);
  decodeAndBack<CreativeFile>(json);
  decodeAndBack<BidReport>(json);
  decodeAndBack<User>(json);
}

/// Makes the nine calls and answers each with `body`. Skips the bid loader, where plans without a
/// bid stop the process as documented.
void callEverything(std::string_view body) {
  Device device;
  for (const char* path : {"/init", "/register", "/update", "/bid/init", "/bid/lost", "/bid/load",
                           "/template", "/bid/stats", "/track"})
    device.server.reply(path, body, 1);
  Runtime runtime(device.platform());

  int answers = 0;
  const auto count = [&answers](const auto&) { ++answers; };
  const User user = currentUser();
  RequestManager::startSDK({{"aid", kAppId}}, count);
  RequestManager::register_(user, count);
  RequestManager::update(user, "user", count);
  RequestManager::loadBid(Json::object(), count);
  RequestManager::sendLost("bid", 1.5, count);
  RequestManager::loadAd(kAppId, KVABidResponse("plan", "bid", 1.5), 1.5, count);
  RequestManager::getTemplate(kAppId, "template", 3, count);
  RequestManager::uploadReports(Json::object(), count);
  RequestManager::trackCampaign(Json::object(), count);
  // Long enough for what an answer causes, such as another registration.
  device.time.advance(3.5);
  expect(answers == 9, "every call is answered once");
}

}  // namespace
}  // namespace kva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kva;
  const auto body = fuzz::text(data, size);
  if (const auto json = parseJson(body)) {
    fuzz::Device device;
    Runtime runtime(device.platform());
    fuzz::decodeEverything(*json);
    if (json->is_object() && json->contains("data")) fuzz::decodeEverything((*json)["data"]);
  }
  fuzz::callEverything(body);
  return 0;
}
