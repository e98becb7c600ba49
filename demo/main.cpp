#include <gtk/gtk.h>

#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "demo/Ads.h"
#include "demo/Autopilot.h"
#include "demo/Journal.h"
#include "demo/Sandbox.h"
#include "demo/Window.h"
#include "sandbox/Catalogue.h"

namespace {

using kva::KVABidType;
using namespace demo;

constexpr const char* kAbout =
    "Plays both kinds of ad against a sandbox ad server by itself, with real input, and ends with "
    "a table of what the host received beside what the server received.";

struct CommandLine {
  bool interactive = false;
  std::string server;
  std::filesystem::path output = "demo-output";
};

/// The host application. Each member depends only on members before it.
class Demo {
 public:
  Demo(GtkApplication* application, const CommandLine& line, std::unique_ptr<Sandbox> sandbox)
      : application_(application),
        line_(line),
        sandbox_(std::move(sandbox)),
        host_(hostOptions()),
        window_(application, actions()),
        viewController_(host_.viewController(window_.window())) {
    journal_.onEvent([this](const Event& event) { showOnMain(event); });
    gtk_window_present(window_.window());
    if (line.interactive) {
      controlServer("/control/scenario", {{"endpoint", "/init"},
                                          {"scenario", "replace"},
                                          {"key", "data.sett.sndm"},
                                          {"value", isMuted()}});
    }
    ads_->start();
    if (!line.interactive) autopilot_ = std::thread([this] { runAutopilot(); });
  }

  ~Demo() {
    if (autopilot_.joinable()) autopilot_.join();
  }

  bool succeeded() const { return succeeded_; }

 private:
  kva::gtk::HostOptions hostOptions() {
    kva::gtk::HostOptions options;
    options.bundleId = "org.kelvara.demo";
    options.appVersion = "1.0";
    options.productionAPIBase = sandbox_->apiBase();
    options.sandboxAPIBase = sandbox_->apiBase();
    options.networkPolicy = kva::gtk::NetworkPolicy::assumeReachable;
    options.advertisingIdentifier = kva::sandbox::kTesterIDFA;
    options.trackingAuthorized = true;
    options.openURL = [this](const std::string& url) { journal_.add(Source::ad, "openURL", url); };
    if (!line_.interactive || line_.server.empty()) {
      // Start with an empty store: frequency caps of an earlier run do not count, and the demo's
      // own server does not know the user of an earlier run.
      options.userDefaults = line_.output / "defaults" / "defaults.sqlite";
      std::filesystem::remove_all(options.userDefaults.parent_path());
    }
    return options;
  }

  Actions actions() {
    const auto switched = [this](const char* what, void (*set)(bool)) {
      return [this, what, set](bool on) {
        journal_.add(Source::host, what, on ? "on" : "off");
        set(on);
      };
    };
    return {
        .bid = [this](KVABidType kind) { ads_->bid(kind); },
        .load = [this](KVABidType kind) { ads_->load(kind); },
        .show = [this](KVABidType kind) { ads_->show(kind, viewController_); },
        .lose = [this](KVABidType kind) { ads_->lose(kind); },
        .consent = {switched("setUserConsent", &kva::Kelvara::setUserConsent)},
        .gdpr = {switched("setSubjectToGDPR", &kva::Kelvara::setSubjectToGDPR)},
        .ccpa = {switched("setSubjectToCCPA", &kva::Kelvara::setSubjectToCCPA)},
        .muted = {[this](bool on) { setMuted(on); }, isMuted()},
        .setScenario =
            [this](const std::string& scenario) {
              for (const char* endpoint : {"/bid/init", "/bid/load"})
                controlServer("/control/scenario",
                              {{"endpoint", endpoint}, {"scenario", scenario}});
            },
    };
  }

  // The server decides whether ads start silent, and the SDK reads that once, when it starts. So
  // the switch takes effect at the next launch. The file exists if ads start with sound.
  std::filesystem::path soundFile() const { return line_.output / "ads-start-with-sound"; }
  bool isMuted() const { return !std::filesystem::exists(soundFile()); }
  void setMuted(bool on) {
    journal_.add(Source::host, "setMuted", on ? "on" : "off");
    if (on) {
      std::filesystem::remove(soundFile());
    } else {
      std::ofstream(soundFile()).flush();
    }
  }

  void controlServer(const char* path, const nlohmann::json& body) {
    const bool done = sandbox_->post(path, body);
    journal_.add(Source::server, path, done ? body.dump() : "refused");
  }

  void showOnMain(const Event& event) {
    struct Shown {
      Demo* demo;
      Event event;
    };
    // Always asynchronous: after the main loop has ended, g_main_context_invoke would run this on
    // the calling thread.
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
          const auto& [demo, shown] = *static_cast<Shown*>(data);
          demo->window_.add(shown);
          if (shown.name == "bid") demo->showLastBid(shown);
          return G_SOURCE_REMOVE;
        },
        new Shown{this, event}, [](gpointer data) { delete static_cast<Shown*>(data); });
  }

  void showLastBid(const Event& event) {
    for (const auto kind : {KVABidType::interstitial, KVABidType::rewarded}) {
      const auto bid = ads_->lastBid(kind);
      if (bid && event.detail.ends_with(bid->planId())) window_.showBid(kind, *bid);
    }
  }

  void runAutopilot() {
    succeeded_ = play({.journal = journal_,
                       .ads = *ads_,
                       .sandbox = *sandbox_,
                       .window = window_.window(),
                       .show = [this](KVABidType kind) { ads_->show(kind, viewController_); },
                       .output = line_.output});
    g_main_context_invoke(
        nullptr,
        [](gpointer application) -> gboolean {
          g_application_quit(G_APPLICATION(application));
          return G_SOURCE_REMOVE;
        },
        application_);
  }

  GtkApplication* application_;
  const CommandLine& line_;
  Journal journal_;
  std::unique_ptr<Sandbox> sandbox_;
  kva::gtk::Host host_;
  std::shared_ptr<Ads> ads_ = std::make_shared<Ads>(journal_);
  Window window_;
  std::shared_ptr<kva::ViewController> viewController_;
  std::thread autopilot_;
  std::atomic<bool> succeeded_{false};
};

}  // namespace

int main(int count, char** arguments) {
  CommandLine line;
  CLI::App options{kAbout};
  options.set_version_flag("--version", "kelvara-demo " + kva::Kelvara::sdkVersion());
  options.add_flag("--interactive", line.interactive, "Leave the window to you");
  options
      .add_option("--server", line.server,
                  "Address of a running sandbox server, such as http://127.0.0.1:8000")
      ->default_str("one of its own");
  options.add_option("--output", line.output, "Folder for the pictures")->capture_default_str();
  CLI11_PARSE(options, count, arguments);
  std::filesystem::create_directories(line.output);

  auto* application = gtk_application_new("org.kelvara.demo", G_APPLICATION_NON_UNIQUE);
  std::unique_ptr<Demo> running;
  auto activate = [&] {
    auto sandbox = line.server.empty() ? Sandbox::launch() : std::make_unique<Sandbox>(line.server);
    if (!sandbox) {
      std::fputs("The sandbox ad server (kelvara-sandbox, beside the demo) did not start.\n",
                 stderr);
      return;
    }
    running = std::make_unique<Demo>(application, line, std::move(sandbox));
  };
  using Activate = decltype(activate);
  g_signal_connect(application, "activate", G_CALLBACK(+[](GtkApplication*, gpointer data) {
                     (*static_cast<Activate*>(data))();
                   }),
                   &activate);
  g_application_run(G_APPLICATION(application), 0, nullptr);
  const bool succeeded = running && (line.interactive || running->succeeded());
  running.reset();
  g_object_unref(application);
  return succeeded ? 0 : 1;
}
