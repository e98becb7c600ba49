#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/base/Result.h>
#include <Kelvara/platform/RunLoop.h>
#include <Kelvara/reporting/BidReport.h>
#include <Kelvara/reporting/ReportStore.h>

namespace kva {

/// Collects a report for every bid whose ad is shown, stores the reports across restarts and
/// uploads them in batches. A report is uploaded again with later batches until it is finished or
/// an hour old. Processes of one application share the reports; one process at a time uploads. Any
/// thread.
class ReportManager {
 public:
  static ReportManager& shared();

  ReportManager();

  /// Schedules the uploads on the calling thread's run loop: at every multiple of `statsSendPeriod`
  /// seconds from now, as long as there is something to upload. Fatal if the SDK has no application
  /// record yet.
  void start();

  /// Stores the action before it returns. If another process holds the store, a later call or
  /// upload stores it.
  void trackAction(const std::string& bidId, const BidReportAction& reportAction);

 private:
  struct State {
    RunLoop::Schedule schedule;  ///< empty before `start`
    double interval = 0;         ///< of the ticks; the first is one interval after `ticksFrom`
    double ticksFrom = 0;        ///< on the monotonic clock
    Timer uploadTimer;           ///< for the next tick; none while there is nothing to upload
    UserDefaults::Claim upload;  ///< held during an upload
    ReportStore reports;
    ReportStore reportsForUpload;       ///< accessed only by the holder of `upload`
    std::int64_t serverErrorCount = 1;  ///< 1 after a success
    // On the monotonic clock.
    double lastTrackActionAt;
    double lastReportUploadedAt;

    bool hasReportsToUpload() const;
    double secondsToNextTick() const;
  };

  static State storedState();
  void setupTimer();
  void updateTimer();
  void uploadTimerTick();
  void startUpload();
  bool claimUpload();
  void finishUpload(const Result<bool>& result);
  void backOff(const Error& error);
  std::vector<BidReport> preparedReportsForUpload();
  void validateUploadedReports();
  void resetReports();
  static void setLastReportUploaded(State& state);
  void releaseUpload();

  Guarded<State> state_;
};

}  // namespace kva
