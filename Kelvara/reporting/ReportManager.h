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

/// Collects a report for every bid whose ad is shown, keeps the reports across restarts and sends
/// them to the server in batches. The server may get one report more than once: until it is
/// finished, or an hour old, it stays. Processes of one application share the reports, and one of
/// them at a time uploads. Any thread.
class ReportManager {
 public:
  /// First used once start-up has the application record, whose `statsSendPeriod` sets the upload
  /// timer; fatal before. The timer runs on the loop of the thread that comes first.
  static ReportManager& shared();

  ReportManager();

  /// Schedules the uploads, once the SDK has its application record. Fatal without one.
  void start();

  /// Stored when it returns.
  void trackAction(const std::string& bidId, const BidReportAction& reportAction);

 private:
  struct State {
    Timer uploadTimer;
    UserDefaults::Claim upload;  ///< while one is under way
    ReportStore reports;
    ReportStore reportsForUpload;       ///< touched by the holder of the claim alone
    std::int64_t serverErrorCount = 1;  ///< 1 when healthy
    // On the monotonic clock.
    double lastTrackActionAt;
    double lastReportUploadedAt;
  };

  static State storedState();
  void setupTimer();
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
