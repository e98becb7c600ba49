// The time to decode answers, and to only parse the same bytes.
#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/Template.h>
#include <Kelvara/api/Response.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/user/Application.h>
#include <nlohmann/json.hpp>

#include "bench/Loopback.h"
#include "bench/Row.h"

namespace kva {
namespace {

const std::string kPage = [] {
  std::string page = "<!doctype html>\n";
  while (page.size() < 65536)
    page += "<div class=\"row\" id='r'>Line of a page &amp; its text</div>\n";
  return page;
}();

std::string adAnswer() {
  Json files = Json::array();
  for (const char* kind : {"main", "end_card"})
    files.push_back({{"id", std::string("f1e00000-0000-4000-8000-000000000001")},
                     {"furl", "https://cdn.example/creatives/2024/summer/clip-720p.mp4"},
                     {"ornt", "portrait"},
                     {"ftyp", kind}});
  const Json data = {{"bid", "b1d00000-0000-4000-8000-000000000001"},
                     {"tmpl", "interstitial"},
                     {"fls", files},
                     {"crea",
                      {{"id", "c1ea0000-0000-4000-8000-000000000001"},
                       {"adt", "interstitial"},
                       {"ctyp", "video"},
                       {"adur", 15000},
                       {"titl", "A game for the summer"},
                       {"curl", "https://shop.example/games/summer?campaign=42&source=ad"},
                       {"icon", "https://cdn.example/icons/summer.png"},
                       {"bton", R"({"en":"Install","tr":"Kur"})"},
                       {"deta", R"({"en":"Play it now","tr":"Hemen oyna"})"}}}};
  return Json{{"ok", true}, {"err", nullptr}, {"time", 1700000000000}, {"data", data}}.dump();
}

std::string templateAnswer() {
  const Json data = {
      {"tmpl", "interstitial"}, {"adt", "interstitial"}, {"tver", 3}, {"html", kPage}};
  return Json{{"ok", true}, {"err", nullptr}, {"time", 0}, {"data", data}}.dump();
}

template <class T>
void decode(const std::string& answer) {
  const auto json = parseJson(answer);
  if (!json) fatal("not JSON: " + answer);
  const auto response = Response<T>::decode(*json);
  if (!response || !response->data) fatal("not decoded: " + answer);
}

template <class T>
void measure(const std::string& what, const std::string& answer) {
  const int calls = answer.size() > 10'000 ? 10 : 200;
  bench::Series ours, floor;
  for (int round = 0; round < 300; ++round) {
    floor.time(
        [&] {
          for (int i = 0; i < calls; ++i)
            if (Json::parse(answer).empty()) fatal("empty");
        },
        calls);
    ours.time(
        [&] {
          for (int i = 0; i < calls; ++i) decode<T>(answer);
        },
        calls);
  }
  bench::printRow("decode " + what, "us", ours.median(), floor.median(), {.ratio = 1.3});
}

}  // namespace
}  // namespace kva

int main() {
  const auto answers = kva::bench::typicalAnswers();
  kva::measure<kva::Application>("a start", answers.at("/init"));
  kva::measure<kva::BidLoadResponse>("a bid", answers.at("/bid/init"));
  kva::measure<kva::Ad>("an ad", kva::adAnswer());
  kva::measure<kva::Template>("a template of 64 KB", kva::templateAnswer());
}
