#pragma once

#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KelvaraGtk.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include "platform/linux_support.h"
#include "support/AdRecorder.h"
#include "support/MainLoop.h"

namespace kva::show {

using test::spinFor;
using test::spinUntil;

/// The web processes that descend from this process.
std::vector<pid_t> pageProcesses();

/// A host with one window, the real SDK, and the sandbox ad server in the same process.
class ShowTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Starts the SDK and waits for it. Fails the test if it cannot start.
  void start();
  std::shared_ptr<KVAAd> makeAd(KVABidType kind);
  /// Bids for `adUnit`, or for the catalogue's ad unit of this kind if empty, and sets `lastBid`.
  std::shared_ptr<KVABidResponse> bid(KVABidType kind, std::string_view adUnit = {});
  /// Bids and loads, and waits until the ad is ready.
  std::shared_ptr<KVAAd> loaded(KVABidType kind, std::string_view adUnit = {});
  /// Shows the ad and waits until it covers the window.
  void show(KVAAd& ad);
  /// Clicks the close or skip control, the sound control, or the middle of the page.
  void clickTopTrailing();
  void clickTopLeading();
  void clickPage();
  bool waitFor(const std::string& event, int times = 1, int seconds = 10) {
    return spinUntil([&] { return recorder->count(event) >= times; }, seconds);
  }
  /// Waits until `areComplete` holds for the reports of the server's state.
  bool reportsCome(const std::function<bool(const sandbox::State&)>& areComplete);
  /// Waits for the merged report of the last bid, until `isComplete` holds for it.
  sandbox::ReportRecord reportWhen(
      const std::function<bool(const sandbox::ReportRecord&)>& isComplete);
  bool isOnlyWarmPageLeft() {
    return spinUntil([] { return pageProcesses().size() <= 1; });
  }

  test::TemporaryFolder folder;
  sandbox::Server server;
  std::unique_ptr<gtk::Host> host;
  GtkWindow* window = nullptr;
  std::shared_ptr<ViewController> viewController;
  std::shared_ptr<test::AdRecorder> recorder = std::make_shared<test::AdRecorder>();
  std::shared_ptr<KVABidResponse> lastBid;
  std::vector<std::string> opened;
};

}  // namespace kva::show
