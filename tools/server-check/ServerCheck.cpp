#include "server-check/ServerCheck.h"

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/reporting/BidReport.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/CurrentUser.h>
#include <Kelvara/user/ReferralTracking.h>
#include <platform/linux/LinuxPlatform.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <utility>

#include "server-check/Recorder.h"

namespace kva::check {
namespace {

using Json = nlohmann::json;

/// Identifiers that no server has issued.
constexpr const char* kUnknown = "00000000-1111-4222-8333-444444444444";
constexpr const char* kAdvertisingId = "7D2B6C51-9A5E-4C1B-9E0C-3B7A1F4D8E62";

class Silence final : public LogOutput {
 public:
  void print(LogLevel, std::string_view) override {}
};

/// A folder for the installation's settings. The destructor removes it.
class Home {
 public:
  Home() {
    std::string path = (std::filesystem::temp_directory_path() / "kelvara-check-XXXXXX").string();
    if (mkdtemp(path.data())) path_ = path;
  }
  ~Home() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;
  std::filesystem::path settings() const { return path_ / "defaults.sqlite"; }

 private:
  std::filesystem::path path_;
};

Platform makePlatform(const Options& options, const Home& home) {
  LinuxOptions linux;
  linux.bundleId = "org.kelvara.server-check";
  linux.appVersion = "1.0";
  linux.userDefaults = home.settings();
  linux.apiBases = {.production = options.baseURL, .sandbox = options.baseURL};
  linux.advertisingIdentifier = kAdvertisingId;
  linux.trackingAuthorized = true;
  linux.reachability = ReachabilityPolicy::assumeReachable;
  Platform ports = makeLinuxPlatform(linux).ports;
  ports.urlSession =
      std::make_shared<Recorder>(ports.urlSession, options.baseURL, options.timeoutSeconds);
  ports.logOutput = std::make_shared<Silence>();
  return ports;
}

/// Waits until `start` calls its completion, and returns the result.
template <class T>
Result<T> await(const std::function<void(Completion<Result<T>>)>& start) {
  std::promise<Result<T>> promise;
  start([&](Result<T> result) { promise.set_value(std::move(result)); });
  return promise.get_future().get();
}

std::string text(const Error& error) {
  return std::to_string(error.code()) + ", " + error.localizedDescription();
}

template <class T>
std::string problemOf(const Result<T>& result) {
  return result ? std::string() : "refused with " + text(result.error());
}

template <class T>
std::string expectRefusal(const Result<T>& result) {
  return result ? "accepted" : std::string();
}

template <class T>
std::string expectUnknownUser(const Result<T>& result) {
  if (result) return "accepted";
  return result.error().code() == 404 ? std::string() : problemOf(result);
}

std::string expectSame(const char* field, const Json& expected, const Json& got) {
  if (expected == got) return {};
  return std::string(field) + ": expected " + expected.dump() + ", got " + got.dump();
}

/// The steps, in the order of an installation's life.
class Check {
 public:
  Check(const Options& options, const std::function<void(const Step&)>& onStep)
      : options_(options), onStep_(onStep), runtime_(makePlatform(options, home_)) {}

  std::vector<Step> run() {
    start();
    installation();
    registration();
    // Without a user the server refuses every further call.
    if (AnalyticsManager::shared().isRegistered()) {
      updates();
      bids();
      ads();
      reports();
    }
    templates();
    return std::move(steps_);
  }

 private:
  using Act = std::function<std::string()>;  ///< returns the problem, or nothing

  void start();
  void installation();
  void registration();
  void updates();
  void bids();
  void ads();
  void templates();
  void reports();

  /// Runs `act`. If an exchange breaks the contract, those breaches are the findings: they explain
  /// the problem of `act`. Otherwise that problem is the finding, with the endpoint's `rule`.
  void step(const char* path, const char* rule, const char* name, const Act& act);
  std::vector<Finding> judge(const Exchange& exchange) const;
  std::optional<std::string> clockProblem(const Exchange& exchange) const;

  Result<RegisterResponse> update(const std::string& userId);
  Result<BidLoadResponse> bid(const std::string& adUnit, const char* adType,
                              const std::string& userId);
  Result<Template> fetch(const std::string& id, std::optional<std::int64_t> version);
  Result<bool> upload(const std::string& userId, const BidReport& report);
  std::string userId() const { return AnalyticsManager::shared().userId().value_or(kUnknown); }

  const Options& options_;
  const std::function<void(const Step&)>& onStep_;
  Home home_;
  Runtime runtime_;
  std::vector<Step> steps_;
  std::vector<Exchange> last_;  ///< of the last step
  Json initQuery_;
  std::map<std::string, std::int64_t> announced_;
  std::vector<BidLoadResponse> offers_;
  std::optional<Ad> ad_;
};

std::optional<std::string> Check::clockProblem(const Exchange& exchange) const {
  using std::chrono::system_clock, std::chrono::milliseconds, std::chrono::days;
  const milliseconds server(exchange.reply["time"].get<std::int64_t>());
  const auto ours =
      std::chrono::duration_cast<milliseconds>(system_clock::now().time_since_epoch());
  if (server > ours - days(1) && server < ours + days(1)) return {};
  return "time: is " + std::to_string(server.count()) + ", expected about " +
         std::to_string(ours.count());
}

std::vector<Finding> Check::judge(const Exchange& exchange) const {
  const auto& contract = contract::Contract::current();
  std::vector<Finding> findings;
  for (const auto& breach : exchange.requestBreaches) {
    findings.push_back({exchange.path, "the SDK's own request, " + breach.text(), breach.sentence});
  }
  for (const auto& breach : exchange.replyBreaches) {
    findings.push_back({exchange.path, breach.text(), breach.sentence});
  }
  if (exchange.error) {
    findings.push_back({exchange.path, "no answer: " + exchange.error->localizedDescription(),
                        contract.rule("", "answer")});
  }
  if (!findings.empty()) return findings;
  if (exchange.reply["ok"] == false && exchange.reply["err"].is_null()) {
    return {{exchange.path, "err: null in a refusal", contract.rule("", "record")}};
  }
  if (exchange.path == "/track" && exchange.reply["ok"] == false) {
    const Json& error = exchange.reply["err"];
    findings.push_back({exchange.path,
                        "refused with " + error["code"].dump() + ", " + std::string(error["msg"]),
                        contract.rule("/track", "accepted")});
  }
  if (auto problem = clockProblem(exchange)) {
    findings.push_back({exchange.path, *problem, contract.rule("", "clock")});
  }
  return findings;
}

void Check::step(const char* path, const char* rule, const char* name, const Act& act) {
  Step done{path, name, {}};
  std::string problem = act();
  last_ = static_cast<Recorder&>(*runtime_.platform().urlSession).takeExchanges();
  for (const Exchange& exchange : last_) {
    for (Finding& finding : judge(exchange)) done.findings.push_back(std::move(finding));
  }
  if (done.findings.empty() && !problem.empty()) {
    done.findings.push_back(
        {path, std::move(problem), contract::Contract::current().rule(path, rule)});
  }
  onStep_(done);
  steps_.push_back(std::move(done));
}

void Check::start() {
  step("/init", "same-application", "a first start", [&]() -> std::string {
    std::promise<std::optional<Error>> promise;
    Kelvara::start(options_.application,
                   [&](std::optional<Error> error) { promise.set_value(std::move(error)); });
    const auto error = promise.get_future().get();
    if (error) return "refused with " + text(*error);
    const auto application = SDKManager::shared().application();
    announced_ = application->templateVersions;
    return expectSame("data.aid", options_.application, application->applicationId);
  });
  for (const Exchange& exchange : last_) {
    if (exchange.path == "/init") initQuery_ = exchange.fields;
  }
  step("/init", "period", "the pause between uploads", [&]() -> std::string {
    const auto application = SDKManager::shared().application();
    if (!application || application->setting.statsSendPeriod >= 1) return {};
    return "data.sett.dip: below 100";
  });
  step("/init", "unknown-application", "an unknown application", [&] {
    return expectRefusal(await<Application>([&](auto completion) {
      std::map<std::string, std::optional<std::string>> query;
      for (const auto& item : initQuery_.items()) query[item.key()] = std::string(item.value());
      query["aid"] = kUnknown;
      RequestManager::startSDK(std::move(query), std::move(completion));
    }));
  });
}

void Check::installation() {
  const auto track = [&](const char* name) {
    step("/track", "accepted", name, [&]() -> std::string {
      ReferralTracking::shared().trackCampaign();
      return {};
    });
  };
  track("an installation without consent");
  Kelvara::setUserConsent(true);
  track("an installation with an advertising identifier");
}

void Check::registration() {
  step("/register", "new-user", "a first registration", [&]() -> std::string {
    std::promise<std::optional<Error>> promise;
    AnalyticsManager::shared().register_(
        [&](std::optional<Error> error) { promise.set_value(std::move(error)); });
    const auto error = promise.get_future().get();
    return error ? "refused with " + text(*error) : std::string();
  });
  step("/register", "new-user", "the same device after a reinstallation", [&]() -> std::string {
    const auto again = await<RegisterResponse>(
        [&](auto completion) { RequestManager::register_(currentUser(), std::move(completion)); });
    if (!again || again->userId != userId()) return problemOf(again);
    return "data.uid: used twice, " + again->userId;
  });
}

Result<RegisterResponse> Check::update(const std::string& userId) {
  return await<RegisterResponse>([&](auto completion) {
    RequestManager::update(currentUser(), userId, std::move(completion));
  });
}

void Check::updates() {
  step("/update", "same-user", "a changed device", [&] {
    const auto updated = update(userId());
    return updated ? expectSame("data.uid", userId(), updated->userId) : problemOf(updated);
  });
  Kelvara::setUserConsent(false);
  step("/update", "consent", "consent withdrawn", [&] { return problemOf(update(userId())); });
  step("/update", "unknown-user", "an unknown user",
       [&] { return expectUnknownUser(update(kUnknown)); });
  step("/update", "unknown-user", "an empty user id",
       [&] { return expectUnknownUser(update("")); });
}

Result<BidLoadResponse> Check::bid(const std::string& adUnit, const char* adType,
                                   const std::string& userId) {
  const User device = currentUser();
  return await<BidLoadResponse>([&](auto completion) {
    RequestManager::loadBid({{"aid", options_.application},
                             {"uid", userId},
                             {"adid", adUnit},
                             {"pl", device.platform},
                             {"adt", adType},
                             {"osv", device.osVersion},
                             {"dbra", device.deviceBrand},
                             {"dmod", device.deviceModel}},
                            std::move(completion));
  });
}

void Check::bids() {
  const auto offer = [&](const char* name, const std::string& adUnit, const char* adType) {
    step("/bid/init", "new-bid", name, [&]() -> std::string {
      const auto offered = bid(adUnit, adType, userId());
      if (!offered) return problemOf(offered);
      if (offered->plans.empty()) return "data.plans: empty for an ad unit that should have demand";
      for (const auto& earlier : offers_) {
        if (earlier.bidId == offered->bidId) return "data.bid: used twice, " + *offered->bidId;
      }
      offers_.push_back(*offered);
      return {};
    });
  };
  offer("a bid for an interstitial", options_.interstitial, "interstitial");
  offer("a bid for a rewarded ad", options_.rewarded, "rewarded");
  offer("a second bid for the same ad unit", options_.interstitial, "interstitial");
  if (!options_.unitWithoutDemand.empty()) {
    step("/bid/init", "no-fill", "no fill", [&]() -> std::string {
      const auto offered = bid(options_.unitWithoutDemand, "interstitial", userId());
      if (!offered) return problemOf(offered);
      return offered->plans.empty() ? "" : "data.plans: not empty";
    });
  }
  step("/bid/init", "unknown-unit", "an unknown ad unit", [&]() -> std::string {
    const auto offered = bid(kUnknown, "interstitial", userId());
    return offered && !offered->plans.empty() ? "data.plans: not empty" : "";
  });
  step("/bid/init", "unknown-user", "an unknown user",
       [&] { return expectUnknownUser(bid(options_.interstitial, "interstitial", kUnknown)); });
}

void Check::ads() {
  const auto load = [&](const char* rule, const char* name, const BidLoadResponse& offer,
                        const Plan& plan) {
    step("/bid/load", rule, name, [&]() -> std::string {
      const KVABidResponse won(plan.planId, *offer.bidId, plan.price());
      const auto ad = await<Ad>([&](auto completion) {
        RequestManager::loadAd(options_.application, won, won.price(), std::move(completion));
      });
      if (!ad) return problemOf(ad);
      if (!ad_) ad_ = *ad;
      return expectSame("data.bid", *offer.bidId, ad->bidId);
    });
  };
  if (!offers_.empty()) {
    load("same-bid", "the ad of a bid that has won", offers_[0], offers_[0].plans.front());
  }
  if (offers_.size() > 1) {
    load("any-plan", "the last plan, on a device that has reached the caps of the others",
         offers_[1], offers_[1].plans.back());
  }
  if (offers_.size() > 2) {
    step("/bid/lost", "accepted", "a bid that has lost", [&] {
      return problemOf(await<bool>([&](auto completion) {
        RequestManager::sendLost(*offers_[2].bidId, 1.2349, std::move(completion));
      }));
    });
  }
  if (!ad_ || !SDKManager::shared().application()) return;
  step("/bid/load", "announced-template", "the ad's template", [&]() -> std::string {
    if (announced_.contains(ad_->templateId)) return {};
    return "data.tmpl: \"" + ad_->templateId + "\" is not in \"tmpv\" of /init";
  });
}

Result<Template> Check::fetch(const std::string& id, std::optional<std::int64_t> version) {
  return await<Template>([&](auto completion) {
    RequestManager::getTemplate(options_.application, id, version, std::move(completion));
  });
}

void Check::templates() {
  const auto fetchAnnounced = [&](const char* rule, const char* name,
                                  std::optional<std::int64_t> sentVersion) {
    step("/template", rule, name, [&]() -> std::string {
      const auto version = announced_.at(ad_->templateId);
      const auto page = fetch(ad_->templateId, sentVersion);
      if (!page) return problemOf(page);
      if (page->version < version) {
        return "data.tver: expected at least " + std::to_string(version) + ", got " +
               std::to_string(page->version);
      }
      return expectSame("data.tmpl", ad_->templateId, page->id);
    });
  };
  if (ad_ && announced_.contains(ad_->templateId)) {
    fetchAnnounced("announced-version", "a template of which the device has an old version",
                   announced_.at(ad_->templateId));
    fetchAnnounced("newest", "a template whose version is unknown", std::nullopt);
  }
  step("/template", "unknown-template", "an unknown template",
       [&] { return expectRefusal(fetch("no-such-template", std::nullopt)); });
}

Result<bool> Check::upload(const std::string& userId, const BidReport& report) {
  return await<bool>([&](auto completion) {
    RequestManager::uploadReports({{"aid", options_.application},
                                   {"uid", userId},
                                   {"stats", Json::array({report.dictionaryValue()})}},
                                  std::move(completion));
  });
}

void Check::reports() {
  const auto now = AnalyticsManager::shared().serverTime();
  BidReport report{.bidId = offers_.empty() ? kUnknown : *offers_[0].bidId};
  report.apply({BidReportAction::impression}, now);
  const auto send = [&](const char* rule, const char* name) {
    step("/bid/stats", rule, name, [&] { return problemOf(upload(userId(), report)); });
  };
  send("repeated", "a shown ad");
  send("repeated", "the same report again");
  report.apply({BidReportAction::dismiss}, now);
  send("repeated", "the same ad, closed");
  step("/bid/stats", "unknown-user", "an unknown user",
       [&] { return expectUnknownUser(upload(kUnknown, report)); });
  report.bidId = kUnknown;
  send("unknown-bid", "a report for an unknown bid");
}

}  // namespace

std::vector<Step> checkServer(const Options& options,
                              const std::function<void(const Step&)>& onStep) {
  return Check(options, onStep).run();
}

}  // namespace kva::check
