// A host application without a display, told what to do line by line: each line on standard input
// is a command, each is answered by a line that begins with "= ". The SDK's log goes to standard
// output beside that. Made to be killed at any moment.
#include <glib.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/AdLoader.h>
#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <platform/linux/LinuxPlatform.h>

namespace {

using namespace kva;

/// In one write, so that it does not mix with log lines, and however long the reader takes.
void answer(const std::string& text) {
  const std::string line = "= " + text + "\n";
  if (write(STDOUT_FILENO, line.data(), line.size()) < 0) std::exit(1);
}

class HostProcess : public AdLoaderDelegate, public std::enable_shared_from_this<HostProcess> {
 public:
  void run(const std::string& command, std::istream& arguments) {
    if (command == "start") {
      Kelvara::start(next(arguments), [](std::optional<Error> error) {
        answer("started " + std::to_string(error ? error->code() : 0));
      });
    } else if (command == "bid") {
      bid(next(arguments));
    } else if (command == "load") {
      loader_ = AdLoader::create();
      loader_->setDelegate(shared_from_this());
      const auto bid = bid_.get();
      loader_->load(bid, bid->price());
    } else if (command == "template") {
      TemplateManager::shared().templateFor(next(arguments), [](std::optional<Template> found) {
        answer(found ? "template " + std::to_string(found->version) : "no template");
      });
    } else if (command == "impression") {
      FrequencyCappingManager::shared().trackImpression(next(arguments));
      answer("impression");
    } else if (command == "track") {
      track(arguments);
    } else if (command == "initialized") {
      answer(Kelvara::isInitialized() ? "yes" : "no");
    }
  }

  void adLoaderDidReceiveAd(AdLoader& loader) override {
    answer("ad " + loader.adData()->templateId);
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override {
    answer("ad failed " + std::to_string(error.code()));
  }

 private:
  static std::string next(std::istream& arguments) {
    std::string word;
    arguments >> word;
    return word;
  }

  void bid(const std::string& adUnit) {
    KVABidLoader::loadBid(adUnit, KVABidType::interstitial,
                          [this](std::shared_ptr<KVABidResponse> bid, std::optional<Error> error) {
                            if (error) return answer("no bid " + std::to_string(error->code()));
                            bid_.set(bid);
                            answer("bid " + bid->bidId() + " " + bid->planId());
                          });
  }

  static void track(std::istream& arguments) {
    std::string bidId, action;
    std::int64_t quarter = 0;
    arguments >> bidId >> action >> quarter;
    static const std::map<std::string, BidReportAction::Kind> kinds = {
        {"impression", BidReportAction::impression}, {"click", BidReportAction::click},
        {"complete", BidReportAction::complete},     {"dismiss", BidReportAction::dismiss},
        {"quarter", BidReportAction::videoQuarter},  {"fail", BidReportAction::failToShow},
    };
    ReportManager::shared().trackAction(bidId, {kinds.at(action), quarter});
    answer("tracked " + bidId + " " + action);
  }

  Guarded<std::shared_ptr<KVABidResponse>> bid_;  // set on the session's thread
  std::shared_ptr<AdLoader> loader_;
};

}  // namespace

/// host_process API_BASE DEFAULTS_FILE APP_VERSION [follow]
int main(int count, char** arguments) {
  if (count < 4) return 2;
  LinuxOptions options;
  options.bundleId = "org.kelvara.story";
  options.appVersion = arguments[3];
  options.userDefaults = arguments[2];
  options.apiBases = {.production = arguments[1], .sandbox = arguments[1]};
  options.reachability =
      count > 4 ? ReachabilityPolicy::followSystem : ReachabilityPolicy::assumeReachable;
  const auto host = std::make_shared<HostProcess>();  // hears what is cancelled at the end
  Runtime runtime(makeLinuxPlatform(options).ports);
  answer("ready");

  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  // Commands are carried out on the main thread, between what the loop has to do.
  std::jthread reader([&] {
    for (std::string line; std::getline(std::cin, line);) {
      runtime.platform().mainQueue->async([&host, line] {
        std::istringstream words(line);
        std::string command;
        words >> command;
        host->run(command, words);
      });
    }
    runtime.platform().mainQueue->async([&] { g_main_loop_quit(loop); });
  });
  g_main_loop_run(loop);
}
