#include <Kelvara/reporting/ReportManager.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/core/SDKManager.h>
#include <Kelvara/user/AnalyticsManager.h>
#include <Kelvara/user/PrivacyManager.h>

namespace kva {
namespace {

using Keys = SDKHelper::UserDefaultKeys;

constexpr int kExpiryDays = 2;
constexpr int kUnfinishedHours = 1;
/// On a first launch, the last upload counts as this long ago.
constexpr double kSecondsSinceUpload = 4;
constexpr double kShortestInterval = 1;

const Platform& platform() { return Runtime::current().platform(); }

std::optional<double> storedNumber(const char* key) {
  const auto value = userDefaults().value(key);
  if (!value) return {};
  if (const auto* number = std::get_if<double>(&*value)) return *number;
  if (const auto* number = std::get_if<std::int64_t>(&*value)) return static_cast<double>(*number);
  return {};
}

Json uploadBody(const std::vector<BidReport>& batch) {
  Json stats = Json::array();
  for (const auto& report : batch) stats.push_back(report.dictionaryValue());
  Json body = {{"aid", SDKManager::shared().appId().value_or("")},
               {"uid", AnalyticsManager::shared().userId().value_or("")},
               {"stats", std::move(stats)}};
  if (auto idfa = PrivacyManager::shared().idfaWithPrivacy()) body["idfa"] = *std::move(idfa);
  return body;
}

}  // namespace

ReportManager& ReportManager::shared() { return Runtime::current().get<ReportManager>(); }

ReportManager::ReportManager() : state_(storedState()) {}

void ReportManager::start() {
  state_.with([](State& state) { state.schedule = platform().runLoop->scheduleHere(); });
  setupTimer();
}

ReportManager::State ReportManager::storedState() {
  const Clock& clock = *platform().clock;
  const double now = clock.monotonicNow();
  // A stored time in the future comes from a clock that was ahead. It counts as now.
  const double sinceUpload = std::max(
      0.0,
      clock.now() -
          storedNumber(Keys::lastReportUploadedAt).value_or(clock.now() - kSecondsSinceUpload));
  return {.schedule = {},
          .uploadTimer = {},
          .upload = {},
          .reports = ReportStore(platform().userDefaults, Keys::reports),
          .reportsForUpload = ReportStore(platform().userDefaults, Keys::reportsForUpload),
          .serverErrorCount = 1,
          .lastTrackActionAt = now,
          .lastReportUploadedAt = now - sinceUpload};
}

void ReportManager::trackAction(const std::string& bidId, const BidReportAction& reportAction) {
  Log::d("ReportManager: track action: " + reportAction.description());
  const bool isImpression = reportAction.kind == BidReportAction::impression;
  const std::int64_t serverTime = isImpression ? AnalyticsManager::shared().serverTime() : 0;
  const double now = platform().clock->now();
  // Stored inside the lock, so that an older state never overwrites a newer one.
  state_.with([&](State& state) {
    const BidReport* known = state.reports.find(bidId);
    BidReport report = known ? *known : BidReport{.bidId = bidId, .createdAt = now};
    report.apply(reportAction, serverTime);
    state.lastTrackActionAt = platform().clock->monotonicNow();
    state.reports.set(std::move(report));
    state.reports.persist();
  });
  updateTimer();
}

void ReportManager::setupTimer() {
  const auto application = SDKManager::shared().application();
  if (!application) fatal("the report timer needs an application record");
  const double period = static_cast<double>(application->setting.statsSendPeriod);
  Timer old;
  state_.with([&](State& state) {
    const double interval = std::pow(period, static_cast<double>(state.serverErrorCount));
    state.interval = std::max(kShortestInterval, interval);
    state.ticksFrom = platform().clock->monotonicNow();
    std::swap(state.uploadTimer, old);
  });
  updateTimer();
}

/// Schedules the next tick if there is something to upload, else cancels it.
void ReportManager::updateTimer() {
  Timer old;  // destroyed outside the lock
  state_.with([&](State& state) {
    if (!state.schedule) return;
    if (!state.hasReportsToUpload()) return std::swap(state.uploadTimer, old);
    if (state.uploadTimer) return;
    state.uploadTimer = state.schedule(state.secondsToNextTick(), Repeats::no,
                                       [] { ReportManager::shared().uploadTimerTick(); });
  });
}

bool ReportManager::State::hasReportsToUpload() const {
  if (lastReportUploadedAt > lastTrackActionAt) return false;
  return !reports.reports().empty() || !reportsForUpload.reports().empty();
}

double ReportManager::State::secondsToNextTick() const {
  constexpr double kRounding = 1e-3;  // so that a tick schedules the next one
  const double elapsed = platform().clock->monotonicNow() - ticksFrom;
  return (std::floor((elapsed + kRounding) / interval) + 1) * interval - elapsed;
}

void ReportManager::uploadTimerTick() {
  state_.with([](State& state) { return std::exchange(state.uploadTimer, {}); });
  startUpload();
  updateTimer();
}

void ReportManager::startUpload() {
  if (!claimUpload()) return Log::d("ReportManager: is already uploading.");
  const auto batch = preparedReportsForUpload();
  if (batch.empty()) return releaseUpload();
  if (!AnalyticsManager::shared().isRegistered()) {
    Log::e("ReportManager: user is not registered.");
    return releaseUpload();
  }
  RequestManager::uploadReports(uploadBody(batch),
                                [this](const Result<bool>& result) { finishUpload(result); });
}

/// Claims the upload for this process. False while this process or another holds the claim.
bool ReportManager::claimUpload() {
  return state_.with([](State& state) {
    if (state.upload) return false;
    state.upload = userDefaults().claim(UserDefaults::Task::upload);
    return state.upload != nullptr;
  });
}

void ReportManager::releaseUpload() {
  state_.with([](State& state) { state.upload.reset(); });
}

void ReportManager::finishUpload(const Result<bool>& result) {
  if (result) {
    Log::d("ReportManager: report uploaded.");
    state_.with([&](State& state) {
      setLastReportUploaded(state);
      // The timer stays: the longer interval lasts until the next error.
      state.serverErrorCount = 1;
    });
    validateUploadedReports();
  } else {
    backOff(result.error());
  }
  releaseUpload();
  updateTimer();
}

void ReportManager::backOff(const Error& error) {
  Log::e("ReportManager: upload error: " + error.localizedDescription());
  const bool isServerError = error.code() == SDKHelper::GenericErrorCodes::internalServerError;
  state_.with([&](State& state) {
    state.serverErrorCount = isServerError ? state.serverErrorCount + 1 : 1;
  });
  // The interval grows by the exponent, not by a factor, as intended.
  if (isServerError) return setupTimer();
  if (error.code() == SDKHelper::GenericErrorCodes::badRequest) resetReports();
}

std::vector<BidReport> ReportManager::preparedReportsForUpload() {
  const Clock& clock = *platform().clock;
  const double now = clock.now();
  const double cutoff = clock.addingDays(now, -kExpiryDays);
  return state_.with([&](State& state) {
    std::vector<BidReport> batch;
    if (state.lastReportUploadedAt > state.lastTrackActionAt) return batch;
    state.reports.refresh();
    state.reportsForUpload.refresh();
    state.reports.endFuture(now);
    state.reportsForUpload.merge(state.reports);
    for (const auto& [bidId, report] : state.reportsForUpload.reports()) batch.push_back(report);
    for (const auto& report : batch) {
      // Expired: sent one last time.
      if (report.createdAt >= cutoff) continue;
      state.reports.remove(report.bidId);
      state.reportsForUpload.remove(report.bidId);
    }
    state.reports.persist();
    state.reportsForUpload.persist();
    return batch;
  });
}

void ReportManager::validateUploadedReports() {
  const Clock& clock = *platform().clock;
  const double cutoff = clock.addingHours(clock.now(), -kUnfinishedHours);
  state_.with([&](State& state) {
    state.reports.refresh();
    for (const auto& [bidId, sent] : state.reportsForUpload.reports()) {
      if (!sent.isFinished() && sent.createdAt >= cutoff) continue;
      // Keep a report that has changed since it was sent.
      const BidReport* live = state.reports.find(bidId);
      if (live && *live == sent) state.reports.remove(bidId);
    }
    state.reports.persist();
    state.reportsForUpload.clear();
    state.reportsForUpload.persist();
  });
}

/// Drops every report that this process knows. Reports that another process has tracked since then
/// stay.
void ReportManager::resetReports() {
  state_.with([&](State& state) {
    setLastReportUploaded(state);
    state.reports.clear();
    state.reports.persist();
    state.reportsForUpload.clear();
    state.reportsForUpload.persist();
  });
}

void ReportManager::setLastReportUploaded(State& state) {
  const Clock& clock = *platform().clock;
  state.lastReportUploadedAt = clock.monotonicNow();
  userDefaults().set(Keys::lastReportUploadedAt, clock.now());
}

}  // namespace kva
