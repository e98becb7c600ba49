// One micro cost, for scripts/bench --instructions: runs `measured` kCalls times.
//   micro trackAction COUNT | shouldShow COUNT | impression COUNT | assembly BYTES | decodeAd 1 |
//         parseAd 1
#include <Kelvara/ads/AdHelper.h>

#include "bench/Decode.h"
#include "bench/Loopback.h"
#include "bench/Store.h"

namespace {

constexpr int kCalls = 100;

}  // namespace

/// The instructions of this function are counted.
extern "C" [[gnu::noinline]] void measured(const std::function<void()>& call) { call(); }

int main(int words, char** arguments) {
  using namespace kva;
  if (words != 3) return 2;
  const std::string what = arguments[1];
  const int count = std::stoi(arguments[2]);
  const bench::Folder folder;
  bench::fillStore(folder.file("defaults.sqlite"), what == "assembly" ? 0 : count);
  const bench::Launch launch(folder.file("defaults.sqlite"));
  auto& caps = FrequencyCappingManager::shared();
  auto& reports = ReportManager::shared();
  const Ad ad{.bidId = "bid", .creative = {}, .templateId = "template", .files = {{}}};
  const std::string answer = bench::typicalAnswers().at("/bid/load");
  std::string html(static_cast<std::size_t>(count), 'x');
  for (std::size_t at = 0; at + 10 < html.size(); at += 100) html.replace(at, 4, "\"\\n[");

  for (int i = 0; i <= kCalls; ++i) {
    const std::string id = bench::identifier(i % count);
    const std::function<void()> call = [&] {
      if (what == "trackAction") reports.trackAction(id, {BidReportAction::videoQuarter, i});
      if (what == "shouldShow") caps.shouldShow({id, 100'000, 100'000});
      if (what == "impression") caps.trackImpression(id);
      if (what == "assembly") AdHelper::finalize(html, ad);
      if (what == "decodeAd") bench::decode<Ad>(answer);
      if (what == "parseAd" && Json::parse(answer).empty()) fatal("empty");
    };
    i == 0 ? call() : measured(call);  // the first one prepares
  }
}
