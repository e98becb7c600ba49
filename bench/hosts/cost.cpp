// What an ad costs its host while it is on screen, what a started SDK costs without an ad, and what
// twenty ads leave behind.
#include "bench/hosts/Hosts.h"

int main() {
  using namespace kva::bench;
  Hosts hosts(Page::colour);
  const auto ad = hosts.kelvara("shown 30"), view = hosts.webkit("shown 30");
  const auto ours = [&](const char* name) { return ad.at(name).median(); };
  const auto floor = [&](const char* name) { return view.at(name).median(); };
  printRow("ad on screen for 30 s, processor time of the host", "ms", ours("host"), floor("host"),
           {.ratio = 1.1});
  printRow("ad on screen for 30 s, processor time with the web processes", "ms",
           ours("host") + ours("children"), floor("host") + floor("children"), {.ratio = 1.1});
  printRow("ad on screen, wake-ups of the host", "/s", ours("wakeUps"), floor("wakeUps"),
           {.ratio = 1, .plus = 1.5});

  const auto started = hosts.kelvara("idle 20"), blank = hosts.webkit("blank 20");
  // WebKit's own threads wake up too, so the floor has a view as well.
  printRow("started without an ad, wake-ups of the host, against one blank view", "/s",
           started.at("wakeUps").median(), blank.at("wakeUps").median(), {.ratio = 1, .plus = 0.5});
  printRow("started without an ad, private memory, against one blank view", "MB",
           started.at("memory").median(), blank.at("memory").median(), {.ratio = 1, .plus = 4});

  const auto memory = hosts.kelvara("ads 20").at("memory").values();
  printRow("private memory after 20 ads, against after one", "MB", memory.at(1), memory.at(0),
           {.ratio = 1, .plus = 2});
}
