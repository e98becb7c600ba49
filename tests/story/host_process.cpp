// A host application without a display, told what to do line by line: each line on standard input
// is a command, each is answered by a line that begins with "= ". The SDK's log goes to standard
// output beside that. Made to be killed at any moment.
#include <glib-unix.h>
#include <glib.h>

#include <cstdio>
#include <functional>
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
#include <Kelvara/core/Guarded.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/reporting/ReportManager.h>
#include <platform/linux/LinuxPlatform.h>

namespace {

using namespace kva;

void answer(const std::string& text) {
  Runtime::current().platform().standardOutput->print("= " + text);
}

class HostProcess : public AdLoaderDelegate, public std::enable_shared_from_this<HostProcess> {
 public:
  void run(const std::string& command, std::istringstream& arguments) {
    const auto found = commands_.find(command);
    if (found == commands_.end()) return answer("unknown command " + command);
    found->second(arguments);
  }

  void adLoaderDidReceiveAd(AdLoader& loader) override {
    answer("ad " + loader.adData()->templateId);
  }
  void adLoaderDidFailToReceiveAd(AdLoader&, const Error& error) override {
    answer("ad failed " + std::to_string(error.code()));
  }

 private:
  void start(std::istream& in) {
    std::string appId;
    in >> appId;
    Kelvara::start(appId, [](std::optional<Error> error) {
      answer("started " + std::to_string(error ? error->code() : 0));
    });
  }

  void bid(std::istream& in) {
    std::string adUnit;
    int kind = 0;
    in >> adUnit >> kind;
    KVABidLoader::loadBid(adUnit, static_cast<KVABidType>(kind),
                          [this](std::shared_ptr<KVABidResponse> bid, std::optional<Error> error) {
                            if (error) return answer("no bid " + std::to_string(error->code()));
                            bid_.set(bid);
                            answer("bid " + bid->bidId() + " " + bid->planId());
                          });
  }

  void load(std::istream&) {
    loader_ = AdLoader::create();
    loader_->setDelegate(shared_from_this());
    const auto bid = bid_.get();
    loader_->load(bid, bid->price());
  }

  void fetchTemplate(std::istream& in) {
    std::string id;
    in >> id;
    TemplateManager::shared().templateFor(id, [](std::optional<Template> found) {
      answer(found ? "template " + std::to_string(found->version) : "no template");
    });
  }

  void impression(std::istream& in) {
    std::string planId;
    in >> planId;
    FrequencyCappingManager::shared().trackImpression(planId);
    answer("impression");
  }

  void track(std::istream& in) {
    std::string bidId, action;
    std::int64_t quarter = 0;
    in >> bidId >> action >> quarter;
    const std::map<std::string, BidReportAction::Kind> kinds = {
        {"impression", BidReportAction::impression}, {"click", BidReportAction::click},
        {"complete", BidReportAction::complete},     {"dismiss", BidReportAction::dismiss},
        {"quarter", BidReportAction::videoQuarter},  {"fail", BidReportAction::failToShow},
    };
    ReportManager::shared().trackAction(bidId, {kinds.at(action), quarter});
    answer("tracked " + bidId + " " + action);
  }

  using Command = std::function<void(std::istringstream&)>;
  const std::map<std::string, Command> commands_ = {
      {"start", [this](auto& in) { start(in); }},
      {"bid", [this](auto& in) { bid(in); }},
      {"load", [this](auto& in) { load(in); }},
      {"template", [this](auto& in) { fetchTemplate(in); }},
      {"impression", [this](auto& in) { impression(in); }},
      {"track", [this](auto& in) { track(in); }},
      {"lose", [this](auto&) { KVABidLoader::sendBidLost(bid_.get(), 9.5), answer("lost"); }},
      {"initialized", [](auto&) { answer(Kelvara::isInitialized() ? "yes" : "no"); }},
  };

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
