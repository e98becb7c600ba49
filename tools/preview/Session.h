#pragma once

#include <gtk/gtk.h>

#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/KelvaraGtk.h>
#include <sandbox/Server.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Creative.h"
#include "FileServer.h"
#include "Observer.h"

namespace kva::preview {

/// The circumstances in which an ad is shown.
struct Settings {
  EdgeInsets safeArea{};
  std::string language{};  ///< such as "de"; empty: the system's
  bool isMuted = false;    ///< ads of the application begin without sound
  Link link{};
};

/// One life of an ad: an ad server in this process, the SDK, a bid, the ad. The ad loads at once
/// and waits to be shown. One at a time; main thread only.
class Session {
 public:
  enum class Stage { loading, ready, shown, closed, failed };

  /// Each change of the stage and each observation calls `Observations::changed`.
  Session(const Creative& creative, const Settings& settings, GtkWindow* window,
          Observations& observations);
  ~Session();

  Stage stage() const { return stage_; }
  void show();
  const std::shared_ptr<ViewController>& viewController() const { return viewController_; }
  Observer& observer() { return observer_; }

  /// A control that the SDK shows above the page, in the page's coordinates.
  struct Control {
    Rect box;
    Point centre;  ///< in the window
    bool isAtTop;
    std::string corner;
  };
  std::vector<Control> controls() const;
  /// What is under the controls breaks the rule about corners.
  void checkCorners();
  /// What the ad server knows of the ad so far.
  std::optional<sandbox::ReportRecord> report() const;

 private:
  class Delegate;
  gtk::HostOptions hostOptions(const Settings& settings);
  void setScenarios(const Settings& settings);
  void bid();
  void load(std::shared_ptr<KVABidResponse> bid);
  void enter(Stage stage, const std::string& event);
  void fail(const std::string& why);
  /// Runs `call` in a later turn of the main loop, unless the session has ended. Any thread.
  void later(std::function<void()> call);

  const Creative creative_;
  const std::chrono::milliseconds latency_;
  GtkWindow* window_;
  Observations& observations_;
  Observer observer_;
  const std::filesystem::path folder_;
  std::unique_ptr<FileServer> files_;
  std::unique_ptr<sandbox::Server> server_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::unique_ptr<gtk::Host> host_;
  std::shared_ptr<ViewController> viewController_;
  std::shared_ptr<Delegate> delegate_;
  std::shared_ptr<KVAAd> ad_;
  std::string bidId_;
  Stage stage_ = Stage::loading;
};

}  // namespace kva::preview
