// The time to decode answers, and to only parse the same bytes.
#include <Kelvara/ads/Ad.h>
#include <Kelvara/ads/Template.h>
#include <Kelvara/user/Application.h>

#include "bench/Decode.h"
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

std::string templateAnswer() {
  const Json data = {
      {"tmpl", "interstitial"}, {"adt", "interstitial"}, {"tver", 3}, {"html", kPage}};
  return Json{{"ok", true}, {"err", nullptr}, {"time", 0}, {"data", data}}.dump();
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
          for (int i = 0; i < calls; ++i) bench::decode<T>(answer);
        },
        calls);
  }
  bench::printRow("decode " + what, "us", ours, floor, {.ratio = 1.3});
}

}  // namespace
}  // namespace kva

int main() {
  const auto answers = kva::bench::typicalAnswers();
  kva::measure<kva::Application>("a start", answers.at("/init"));
  kva::measure<kva::BidLoadResponse>("a bid", answers.at("/bid/init"));
  kva::measure<kva::Ad>("an ad", answers.at("/bid/load"));
  kva::measure<kva::Template>("a template of 64 KB", kva::templateAnswer());
}
