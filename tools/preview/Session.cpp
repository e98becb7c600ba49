#include "Session.h"

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/base/Json.h>
#include <sandbox/Catalogue.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <ranges>
#include <stdexcept>
#include <utility>

namespace kva::preview {
namespace {

namespace fs = std::filesystem;
using sandbox::Behaviour;
using sandbox::Scenario;

/// A data folder for the server in which each template is the creative's document.
fs::path makeDataFolder() {
  const GStringPtr made(g_dir_make_tmp("kelvara-preview-XXXXXX", nullptr));
  if (!made) throw std::runtime_error("no temporary folder can be made");
  return made.get();
}

void writeTemplates(const fs::path& folder, const std::string& html) {
  fs::create_directories(folder / "data/templates");
  for (const auto& entry : sandbox::templates())
    std::ofstream(folder / "data/templates" / entry.file, std::ios::binary) << html;
}

/// The SDK reads the language from the environment, as any program does.
void setLanguage(const std::string& language) {
  static const std::string kSystem = g_getenv("LANGUAGE") ? g_getenv("LANGUAGE") : "";
  static const GtkTextDirection kSystemDirection = gtk_widget_get_default_direction();
  g_setenv("LANGUAGE", (language.empty() ? kSystem : language).c_str(), TRUE);
  constexpr std::string_view kFromTheRight[] = {"ar", "fa", "he", "ur"};
  const bool isFromTheRight =
      std::ranges::find(kFromTheRight, language.substr(0, 2)) != std::end(kFromTheRight);
  gtk_widget_set_default_direction(language.empty() ? kSystemDirection
                                   : isFromTheRight ? GTK_TEXT_DIR_RTL
                                                    : GTK_TEXT_DIR_LTR);
}

fs::path resourceFolder() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).parent_path() / KELVARA_DATA_FROM_PROGRAM;
}

/// Calls `visit` with each visible control of the SDK below `widget`.
void eachControl(GtkWidget* widget, const std::function<void(GtkWidget*)>& visit) {
  for (auto* child = gtk_widget_get_first_child(widget); child;
       child = gtk_widget_get_next_sibling(child)) {
    if (!gtk_widget_get_mapped(child)) continue;
    if (gtk_widget_has_css_class(child, "kelvara-control")) visit(child);
    eachControl(child, visit);
  }
}

}  // namespace

class Session::Delegate final : public KVAInterstitialDelegate, public KVARewardedDelegate {
 public:
  Delegate(Session& session) : session_(session) {}

  void interstitialDidReceive(KVAInterstital&) override { received(); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& e) override { failed(e); }
  void interstitialDidPresent(KVAInterstital&) override { presented(); }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& e) override { failed(e); }
  void interstitialDidClick(KVAInterstital&) override { clicked(); }
  void interstitialDidDismiss(KVAInterstital&) override { dismissed(); }
  void rewardedDidReceive(KVARewarded&) override { received(); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& e) override { failed(e); }
  void rewardedDidPresent(KVARewarded&) override { presented(); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& e) override { failed(e); }
  void rewardedDidClick(KVARewarded&) override { clicked(); }
  void rewardedDidDismiss(KVARewarded&) override { dismissed(); }
  void rewardedDidComplete(KVARewarded&) override {
    session_.observations_.note(Source::host, "the reward is earned");
  }

 private:
  void received() {
    session_.observations_.readySeconds =
        static_cast<double>(g_get_monotonic_time() - session_.observer_.loadBegan) / 1e6;
    session_.enter(Stage::ready, "the ad is ready");
  }
  void presented() { session_.enter(Stage::shown, "the ad is shown"); }
  void clicked() { session_.observations_.note(Source::host, "the click is counted"); }
  void dismissed() { session_.enter(Stage::closed, "the ad is closed"); }
  /// A failed load may be reported on the network session's thread.
  void failed(const Error& error) {
    session_.later(
        [&session = session_, why = error.localizedDescription()] { session.fail(why); });
  }

  Session& session_;
};

Session::Session(const Creative& creative, const Settings& settings, GtkWindow* window,
                 Observations& observations)
    : creative_(creative),
      latency_(settings.link.latency),
      window_(window),
      observations_(observations),
      observer_(observations),
      folder_(makeDataFolder()),
      delegate_(std::make_shared<Delegate>(*this)) {
  if (!creative.folder.empty())
    files_ = std::make_unique<FileServer>(creative.folder, settings.link);
  writeTemplates(folder_, creative.documentAt(files_ ? files_->origin() : ""));
  server_ = std::make_unique<sandbox::Server>(
      sandbox::Options{.data = folder_ / "data", .periods = {.betweenUploads = 50}});
  if (auto started = server_->start(); !started) throw std::runtime_error(started.error());
  setScenarios(settings);
  for (const auto& escape : rewrittenEscapes(creative.html))
    observations_.breach(Rule::escapes, escape);
  setLanguage(settings.language);
  host_ = std::make_unique<gtk::Host>(hostOptions(settings));
  viewController_ = host_->viewController(window_);
  Kelvara::start(std::string(sandbox::kApplicationId), [this](std::optional<Error> error) {
    later([this, error] { error ? fail(error->localizedDescription()) : bid(); });
  });
}

Session::~Session() {
  viewController_.reset();
  host_.reset();
  alive_.reset();
  server_.reset();
  files_.reset();
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

gtk::HostOptions Session::hostOptions(const Settings& settings) {
  gtk::HostOptions options;
  options.bundleId = "org.kelvara.preview";
  options.appVersion = KELVARA_VERSION;
  options.mainBundle = resourceFolder();
  options.userDefaults = folder_ / "defaults.sqlite";
  options.productionAPIBase = options.sandboxAPIBase = server_->baseURL();
  options.safeAreaInsets = settings.safeArea;
  options.networkPolicy = gtk::NetworkPolicy::assumeReachable;
  options.openURL = [this](const std::string& url) {
    observations_.opened.push_back(url);
    observations_.note(Source::sdk, "opens " + url);
  };
  // Lines come from any thread.
  options.logSink = [this](gtk::LogLevel level, const std::string& line) {
    if (level == gtk::LogLevel::error)
      later([this, line] { observations_.note(Source::sdk, line); });
  };
  return options;
}

void Session::setScenarios(const Settings& settings) {
  server_->setScenario("*", Scenario{.delay = latency_});
  server_->setScenario("/init", Scenario{.behaviour = Behaviour::replaced,
                                         .delay = latency_,
                                         .key = "data.sett.sndm",
                                         .value = settings.isMuted ? "true" : "false"});
}

void Session::bid() {
  using namespace sandbox;
  const bool isRewarded = creative_.isRewarded();
  KVABidLoader::loadBid(
      std::string(isRewarded ? kRewardedAdUnit : kInterstitialAdUnit),
      isRewarded ? KVABidType::rewarded : KVABidType::interstitial,
      [this](std::shared_ptr<KVABidResponse> won, std::optional<Error> error) {
        later([this, won, error] { won ? load(won) : fail(error->localizedDescription()); });
      });
}

// The server's answer is its own ad. Now that the bid is known, the creative's replaces it.
void Session::load(std::shared_ptr<KVABidResponse> bid) {
  if (!observer_.hasReadyView()) {
    // A slow machine still starts WebKit. The creative is not to blame for that time.
    return later([this, bid] { load(bid); });
  }
  bidId_ = bid->bidId();
  Json ad = creative_.adAt(files_ ? files_->origin() : "", bidId_);
  ad["tmpl"] = creative_.isRewarded() ? sandbox::kVideoTemplate : sandbox::kImageTemplate;
  server_->setScenario("/bid/load", Scenario{.behaviour = Behaviour::replaced,
                                             .delay = latency_,
                                             .key = "data",
                                             .value = jsonText(ad)});
  const auto begin = [&](auto created) {
    created->setDelegate(delegate_);
    ad_ = created;
  };
  creative_.isRewarded() ? begin(KVARewarded::create()) : begin(KVAInterstital::create());
  ad_->loadAd(bid, bid->price());
}

void Session::show() { ad_->showAdFrom(viewController_); }

void Session::enter(Stage stage, const std::string& event) {
  stage_ = stage;
  observations_.note(Source::host, event);
}

void Session::fail(const std::string& why) {
  stage_ = Stage::failed;
  observations_.breach(Rule::plays, why);
}

void Session::later(std::function<void()> call) {
  struct Call {
    std::weak_ptr<bool> alive;
    std::function<void()> call;
  };
  // Not in every turn: a call may ask for itself again until something has happened.
  constexpr guint kMilliseconds = 5;
  g_timeout_add_full(
      G_PRIORITY_DEFAULT, kMilliseconds,
      [](gpointer data) -> gboolean {
        const auto& [alive, run] = *static_cast<Call*>(data);
        if (alive.lock()) run();
        return G_SOURCE_REMOVE;
      },
      new Call{alive_, std::move(call)}, [](gpointer data) { delete static_cast<Call*>(data); });
}

std::vector<Session::Control> Session::controls() const {
  std::vector<Control> found;
  const auto page = observer_.page();
  if (!page) return found;
  const int width = gtk_widget_get_width(GTK_WIDGET(page.get()));
  const int height = gtk_widget_get_height(GTK_WIDGET(page.get()));
  eachControl(GTK_WIDGET(window_), [&](GtkWidget* control) {
    graphene_rect_t box;
    graphene_point_t middle{0, 0}, centre;
    if (!gtk_widget_compute_bounds(control, GTK_WIDGET(page.get()), &box)) return;
    graphene_rect_get_center(&box, &middle);
    if (!gtk_widget_compute_point(GTK_WIDGET(page.get()), GTK_WIDGET(window_), &middle, &centre))
      return;
    const bool isAtTop = box.origin.y + box.size.height / 2 < static_cast<float>(height) / 2;
    const bool isAtLeft = box.origin.x + box.size.width / 2 < static_cast<float>(width) / 2;
    found.push_back(
        {.box = {box.origin.x, box.origin.y, box.size.width, box.size.height},
         .centre = {centre.x, centre.y},
         .isAtTop = isAtTop,
         .corner = std::string(isAtTop ? "top" : "bottom") + (isAtLeft ? " left" : " right")});
  });
  return found;
}

void Session::checkCorners() {
  Json boxes = Json::array();
  for (const auto& [box, centre, isAtTop, corner] : controls())
    boxes.push_back({{"x", box.x},
                     {"y", box.y},
                     {"width", box.width},
                     {"height", box.height},
                     {"corner", corner}});
  observer_.evaluate(
      "kelvaraPreview.report(); kelvaraPreview.contentUnder(" + jsonText(boxes) + ")",
      [this, alive = std::weak_ptr(alive_)](Result<std::string> found) {
        if (!found || !alive.lock()) return;
        const auto list = parseJson(*found);
        if (!list || !list->is_array()) return;
        for (const auto& content : *list)
          observations_.breach(Rule::corners, content.get<std::string>());
      });
}

std::optional<sandbox::ReportRecord> Session::report() const {
  const auto state = server_->state();
  const auto* report = state.report(bidId_);
  return report ? std::optional(*report) : std::nullopt;
}

}  // namespace kva::preview
