#pragma once

#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/KelvaraGtk.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include "gtk/MainLoop.h"
#include "platform/linux_support.h"

namespace kva::show {

using test::spinFor;
using test::spinUntil;

/// Hears everything that a host can hear, as texts such as "didReceive" and "didFailToPresent 0".
class Recorder : public KVAInterstitialDelegate, public KVARewardedDelegate {
 public:
  std::vector<std::string> events() const;
  int count(const std::string& event) const;

  void interstitialDidReceive(KVAInterstital&) override { add("didReceive"); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override {
    add("didFailToReceive", error);
  }
  void interstitialDidPresent(KVAInterstital&) override { add("didPresent"); }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& error) override {
    add("didFailToPresent", error);
  }
  void interstitialDidClick(KVAInterstital&) override { add("didClick"); }
  void interstitialDidDismiss(KVAInterstital&) override { add("didDismiss"); }
  void rewardedDidReceive(KVARewarded&) override { add("didReceive"); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& error) override {
    add("didFailToReceive", error);
  }
  void rewardedDidPresent(KVARewarded&) override { add("didPresent"); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& error) override {
    add("didFailToPresent", error);
  }
  void rewardedDidClick(KVARewarded&) override { add("didClick"); }
  void rewardedDidDismiss(KVARewarded&) override { add("didDismiss"); }
  void rewardedDidComplete(KVARewarded&) override { add("didComplete"); }

 private:
  void add(const std::string& event);
  void add(const std::string& event, const Error& error) {
    add(event + " " + std::to_string(error.code()));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

/// A host with one window, the real SDK in it, and the sandbox ad server in the same process.
class ShowTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Starts the SDK; fails the test when it cannot.
  void start();
  std::shared_ptr<KVAAd> makeAd(KVABidType kind);
  /// Without `adUnit`, that of the catalogue for the kind.
  std::shared_ptr<KVABidResponse> bid(KVABidType kind, std::string_view adUnit = {});
  /// Bids, loads and waits until the ad is ready.
  std::shared_ptr<KVAAd> loaded(KVABidType kind, std::string_view adUnit = {});
  /// Shows it and waits until it covers the window.
  void show(KVAAd& ad);
  /// Clicks where the close or skip control stands, where sound stands, and amid the page.
  void clickTopTrailing();
  void clickTopLeading();
  void clickPage();
  bool heard(const std::string& event, int times = 1, int seconds = 10) {
    return spinUntil([&] { return recorder->count(event) >= times; }, seconds);
  }
  /// The merged report of the last bid, once `enough` holds for it.
  sandbox::ReportRecord reportWhen(std::function<bool(const sandbox::ReportRecord&)> enough);

  test::TemporaryFolder folder;
  sandbox::Server server;
  std::unique_ptr<gtk::Host> host;
  GtkWindow* window = nullptr;
  std::shared_ptr<ViewController> viewController;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<KVABidResponse> lastBid;
  std::vector<std::string> opened;
};

/// The page processes below this process, in whatever sandboxes.
std::vector<pid_t> pageProcesses();

}  // namespace kva::show
