// The speed of making an ad's page from its template, and the memory that it takes.
#include <cstdlib>
#include <new>

#include <malloc.h>

#include <Kelvara/ads/AdHelper.h>

#include "bench/Row.h"
#include "bench/Store.h"

namespace {

std::size_t allocated = 0, mostAllocated = 0;

}  // namespace

// Counts the memory of the program.
void* operator new(std::size_t size) {
  void* made = std::malloc(size);
  if (!made) throw std::bad_alloc();
  allocated += malloc_usable_size(made);
  mostAllocated = std::max(mostAllocated, allocated);
  return made;
}
void operator delete(void* memory) noexcept {
  allocated -= malloc_usable_size(memory);
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace kva::bench {
namespace {

/// A page with styles, scripts with escapes, and a placeholder in every few kilobytes.
std::string templateOf(std::size_t size) {
  constexpr const char* placeholders[] = {
      "[@CLICK_URL]",        "[@MAIN_ASSET]", "[@END_CARD_IMAGE]", "[@ICON_IMAGE]",
      "[@DESCRIPTION_TEXT]", "[@TITLE_TEXT]", "[@CTA_TEXT]"};
  std::string html = "<!DOCTYPE html><html><head></head><body>";
  for (std::size_t i = 0; html.size() < size; ++i) {
    html +=
        "<div class='card' style=\"margin:0;padding:4px 8px\"><span>A line of the page</span>"
        "</div>\n<script>var lines=['a','b'][i%2];text+=\"first\\nsecond \\\"third\\\"\";"
        "</script>\n";
    if (i % 16 == 0) html += placeholders[i / 16 % std::size(placeholders)];
  }
  return html + "</body></html>";
}

Ad someAd() {
  Ad ad{.bidId = "bid", .creative = {}, .templateId = "template", .files = {{}}};
  ad.creative.title = "A title";
  ad.creative.detailTexts = {{"en", "A description of what the ad is about"}};
  ad.creative.buttonTexts = {{"en", "Install"}};
  ad.creative.clickUrl = URL::parse("https://click.test/click?bid=1");
  ad.creative.iconUrl = URL::parse("https://files.test/icon.png");
  for (const auto type : {CreativeFile::FileType::main, CreativeFile::FileType::endCard})
    ad.files->push_back({.id = "file",
                         .fileUrl = *URL::parse("https://files.test/file.mp4"),
                         .orientation = "landscape",
                         .fileType = type});
  return ad;
}

void run() {
  const Folder folder;
  const Launch launch(folder.file("defaults.sqlite"));
  const Ad ad = someAd();
  for (const auto& [name, size, times] :
       {std::tuple("64 KB", 64U << 10, 5000), {"4 MB", 4U << 20, 200}}) {
    const std::string html = templateOf(size);
    Series microseconds;
    double memory = 0;
    for (int i = 0; i < times; ++i) {
      std::string page;
      const std::size_t before = allocated;
      mostAllocated = allocated;
      microseconds.time([&] { page = AdHelper::finalize(html, ad); });
      memory = static_cast<double>(mostAllocated - before) / static_cast<double>(page.size());
    }
    printRow(std::string("page assembly, ") + name, "MB/s",
             static_cast<double>(html.size()) / microseconds.median(), std::nullopt,
             {.ratio = {}, .atLeast = 500});
    printRow(std::string("page assembly, ") + name + ": memory to the size of the result", "ratio",
             memory, std::nullopt, {.ratio = {}, .atLeast = {}, .plus = 2});
  }
}

}  // namespace
}  // namespace kva::bench

int main() { kva::bench::run(); }
