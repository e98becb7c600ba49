#include "bench/hosts/Hosts.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include "bench/hosts/Colours.h"
#include "sandbox/Catalogue.h"

namespace kva::bench {
namespace {

[[noreturn]] void giveUp(const std::string& why) {
  std::fprintf(stderr, "bench: %s\n", why.c_str());
  std::exit(2);
}

Hosts::Figures figuresOf(const std::string& command) {
  FILE* output = popen(command.c_str(), "r");
  if (!output) giveUp("cannot run " + command);
  Hosts::Figures figures;
  // WebKit's processes may print lines of their own.
  char line[256], name[64];
  double value = 0;
  while (std::fgets(line, sizeof line, output))
    if (std::sscanf(line, "%63s %lf", name, &value) == 2) figures[name].add(value);
  if (pclose(output) != 0 || figures.empty()) giveUp("failed: " + command);
  return figures;
}

std::string host(const char* name) { return std::string(KELVARA_BENCH_HOSTS "/") + name + " "; }

/// The template of the ad, filled in as the SDK does it, so both kinds of hosts load the same page.
std::string imageAd(const std::string& origin) {
  std::ifstream file(KELVARA_BENCH_TEMPLATE);
  std::string page(std::istreambuf_iterator<char>(file), {});
  const std::map<std::string, std::string> values{
      {"[@MAIN_ASSET]", origin + "/creatives/lamp-landscape.svg"},
      {"[@END_CARD_IMAGE]", origin + "/creatives/lamp-end-landscape.svg"},
      {"[@ICON_IMAGE]", origin + "/creatives/lamp-icon.svg"},
      {"[@CLICK_URL]", "https://halvik.example/"},
      {"[@TITLE_TEXT]", "Halvik Dusk Lamp"},
      {"[@DESCRIPTION_TEXT]", "A lamp that follows the sunset."},
      {"[@CTA_TEXT]", "See it glow"}};
  for (const auto& [placeholder, value] : values)
    for (std::size_t at; (at = page.find(placeholder)) != std::string::npos;)
      page.replace(at, placeholder.size(), value);
  return page;
}

std::string colouredPage() {
  return "<!doctype html><html><body style='background: " + css(kPageColour) + "'></body></html>";
}

}  // namespace

Hosts::Hosts(Page shown) {
  std::string pattern = std::filesystem::temp_directory_path() / "kelvara-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) giveUp("no temporary folder");
  folder_ = pattern;
  if (const auto started = server_.start(); !started) giveUp(started.error());
  server_.setScenario(
      "/bid/load",
      {.behaviour = sandbox::Behaviour::replaced, .key = "data.crea.adur", .value = "0"});
  const auto page = shown == Page::imageAd ? imageAd(server_.origin()) : colouredPage();
  std::ofstream(folder_ / "page.html") << page;
  if (!server_.publishTemplate(sandbox::kImageTemplate, page)) giveUp("the template is unknown");
}

Hosts::~Hosts() { std::filesystem::remove_all(folder_); }

Hosts::Figures Hosts::kelvara(const std::string& scenario) const {
  return figuresOf(host("host_kelvara") + server_.baseURL() + " " + folder_.native() + " " +
                   scenario);
}

Hosts::Figures Hosts::webkit(const std::string& scenario) const {
  return figuresOf(host("host_webkit") + (folder_ / "page.html").native() + " " + scenario);
}

}  // namespace kva::bench
