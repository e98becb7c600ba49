#include <Kelvara/core/SDKManager.h>

#include <utility>

#include <Kelvara/Kelvara.h>
#include <Kelvara/ads/TemplateManager.h>
#include <Kelvara/api/Reachability.h>
#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/reporting/ReportManager.h>
#include <Kelvara/user/AdminManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/Device.h>
#include <Kelvara/user/ReferralTracking.h>

namespace kva {

SDKManager& SDKManager::shared() { return Runtime::current().get<SDKManager>(); }

SDKManager::SDKManager() {
  auto reachability = Reachability::create();
  if (reachability) {
    reachability_ = *std::move(reachability);
    observation_ = Runtime::current().platform().notificationCenter->addObserver(
        kReachabilityChanged, reachability_.get(), [this] { reachabilityChanged(); });
  }
  if (!reachability_ || !reachability_->startNotifier()) Log::e("Reachability could not start.");
}

SDKManager::~SDKManager() = default;

void SDKManager::start(const std::string& appId, Completion<std::optional<Error>> completion) {
  const bool isValid = isValidUUID(appId);
  const bool isAlreadyStarted = state_.with([&](State& state) {
    if (state.initStatus != InitStatus::notInitialized) return true;
    if (isValid) {
      state.initStatus = InitStatus::initializing;
      state.isNetworkBack = false;
      state.appId = appId;
    }
    return false;
  });
  if (isAlreadyStarted) {
    Log::e("SDK already initialized/initializing.");
    return completion(std::nullopt);
  }
  if (!isValid)
    return completion(SDKHelper::Error::error(KVAErrorCodes::invalidAppId, "App id isn't valid."));

  if (!isReachable()) {
    Log::e("Wait connection for initialization.");
    return failStart(
        SDKHelper::Error::error(KVAErrorCodes::noInternetConnection, "No internet connection."),
        std::move(completion));
  }

  RequestManager::startSDK({{"aid", appId},
                            {"sdkv", Kelvara::sdkVersion()},
                            {"appv", SDKHelper::App::appVersion()},
                            {"pl", SDKHelper::Device::platform()},
                            {"osv", SDKHelper::Device::osVersion()},
                            {"pkg", SDKHelper::App::bundleId()}},
                           [this, completion = std::move(completion)](auto result) mutable {
                             finishStart(std::move(result), std::move(completion));
                           });
}

void SDKManager::finishStart(Result<Application> result,
                             Completion<std::optional<Error>> completion) {
  if (!result) {
    Log::e("Init error: " + result.error().localizedDescription());
    return failStart(result.error(), std::move(completion));
  }
  const Application& application = *result;
  Log::i("Application initalized: " + application.applicationId);
  state_.with([&](State& state) { state.application = application; });
  AdminManager::shared().setTesters(application.testers);
  ReportManager::shared().start();
  TemplateManager::shared().setTemplateVersions(application.templateVersions);
  AnalyticsManager::shared().updateIfNeeded();
  if (application.hasCampaign) ReferralTracking::shared().trackCampaign();
  // Last: the work that the managers start above must still see the SDK uninitialised.
  state_.with([](State& state) { state.initStatus = InitStatus::initialized; });
  SDKHelper::App::expectAd();
  completion(std::nullopt);
}

void SDKManager::failStart(const Error& error, Completion<std::optional<Error>> completion) {
  const bool isNetworkBack = state_.with([](State& state) {
    state.initStatus = InitStatus::notInitialized;
    return state.isNetworkBack;
  });
  completion(error);
  // The network came back during the start, and that notification did not start the SDK again.
  if (isNetworkBack) startAgain();
}

void SDKManager::reachabilityChanged() {
  const bool isNowReachable = isReachable();
  const bool isStarting = state_.with([&](State& state) {
    // The first notification is not a change: it reports the initial state of the network.
    state.isNetworkBack = std::exchange(state.isNetworkKnown, true) && isNowReachable;
    return state.initStatus == InitStatus::initializing;
  });
  if (!isStarting) startAgain();
}

void SDKManager::startAgain() {
  if (!isReachable()) return;
  const auto appId = state_.with([](const State& state) {
    return state.initStatus == InitStatus::notInitialized ? state.appId : std::nullopt;
  });
  if (appId) start(*appId, [](std::optional<Error>) {});
}

void SDKManager::setUserId(std::string userId) {
  state_.with([&](State& state) { state.userId = std::move(userId); });
}

std::optional<std::string> SDKManager::appId() const {
  return state_.with([](const State& state) { return state.appId; });
}

std::optional<std::string> SDKManager::userId() const {
  return state_.with([](const State& state) { return state.userId; });
}

std::optional<Application> SDKManager::application() const {
  return state_.with([](const State& state) { return state.application; });
}

bool SDKManager::isInitialized() const {
  return state_.with(
      [](const State& state) { return state.initStatus == InitStatus::initialized; });
}

bool SDKManager::isReachable() const {
  return reachability_ && reachability_->connection() != Connection::unavailable;
}

}  // namespace kva
