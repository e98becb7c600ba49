// A host application without a display. It reads one command per line from standard input and
// answers each with a line that begins with "= ". Its other lines are the SDK's log. Tests kill it
// at any moment.
#include <glib.h>

#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <platform/linux/LinuxPlatform.h>

namespace {

using namespace kva;

/// One write, so answers and log lines do not mix.
void answer(const std::string& text) {
  const std::string line = "= " + text + "\n";
  if (write(STDOUT_FILENO, line.data(), line.size()) < 0) std::exit(1);
}

void track(const std::string& bidId, std::istream& arguments) {
  static const std::map<std::string, BidReportAction::Kind> kinds = {
      {"imp", BidReportAction::impression}, {"clck", BidReportAction::click},
      {"comp", BidReportAction::complete},  {"dism", BidReportAction::dismiss},
      {"fts", BidReportAction::failToShow},
  };
  std::string action;
  arguments >> action;
  ReportManager::shared().trackAction(bidId, {kinds.at(action)});
  answer("tracked " + bidId + " " + action);
}

void run(const std::string& line) {
  std::istringstream words(line);
  std::string command, id;
  words >> command >> id;
  if (command == "start") {
    Kelvara::start(id, [](std::optional<Error> error) {
      answer("started " + std::to_string(error ? error->code() : 0));
    });
  } else if (command == "bid") {
    KVABidLoader::loadBid(
        id, KVABidType::interstitial,
        [](std::shared_ptr<KVABidResponse> bid, std::optional<Error> error) {
          answer(error ? "no bid " + std::to_string(error->code()) : "bid " + bid->bidId());
        });
  } else if (command == "template") {
    TemplateManager::shared().templateFor(id, [](std::optional<Template> found) {
      answer(found ? "template " + std::to_string(found->version) : "no template");
    });
  } else if (command == "impression") {
    FrequencyCappingManager::shared().trackImpression(id);
    answer("impression");
  } else if (command == "track") {
    track(id, words);
  }
}

}  // namespace

/// host_process API_BASE DEFAULTS_FILE
int main(int count, char** arguments) {
  if (count < 3) return 2;
  LinuxOptions options;
  options.bundleId = "org.kelvara.story";
  options.appVersion = "1.0";
  options.userDefaults = arguments[2];
  options.apiBases = {.production = arguments[1], .sandbox = arguments[1]};
  options.reachability = ReachabilityPolicy::assumeReachable;
  Runtime runtime(makeLinuxPlatform(options).ports);
  answer("ready");

  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  // Commands run on the main thread.
  std::jthread reader([&] {
    for (std::string line; std::getline(std::cin, line);)
      runtime.platform().mainQueue->async([line] { run(line); });
    runtime.platform().mainQueue->async([&] { g_main_loop_quit(loop); });
  });
  g_main_loop_run(loop);
}
