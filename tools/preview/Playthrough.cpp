#include "Playthrough.h"

#include <stage/RealInput.h>
#include <stage/Screenshot.h>

#include <string>

namespace kva::preview {
namespace {

using Stage = Session::Stage;

// The SDK itself ends a load after a minute.
constexpr double kLoadSeconds = 70;
constexpr double kShowSeconds = 10;
constexpr double kCloseSeconds = 5;
constexpr double kVideoSeconds = 180;
constexpr double kReportSeconds = 5;
// How long the ad is watched before the tap, and after it.
constexpr double kWatchSeconds = 2;
constexpr double kTapSeconds = 1;
// How long a page needs to draw and answer.
constexpr double kSettleSeconds = 0.4;

/// Runs the main loop until `done`. False after `seconds`.
bool runUntil(const std::function<bool()>& done, double seconds) {
  const gint64 end = g_get_monotonic_time() + static_cast<gint64>(seconds * 1e6);
  const guint wake = g_timeout_add(
      10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool isDone = done();
  while (!isDone && g_get_monotonic_time() < end) {
    g_main_context_iteration(nullptr, TRUE);
    isDone = done();
  }
  g_source_remove(wake);
  return isDone;
}

void settle(double seconds) {
  runUntil([] { return false; }, seconds);
}

class Player {
 public:
  Player(Session& session, const Creative& creative, GtkWindow* window, Observations& observations,
         const Plan& plan)
      : session_(session),
        creative_(creative),
        window_(window),
        observations_(observations),
        plan_(plan) {}

  void play() {
    if (!reach(Stage::ready, kLoadSeconds, "the ad is not ready")) return;
    pictureOfPage("1-ready");
    session_.show();
    if (!reach(Stage::shown, kShowSeconds, "the ad is not shown")) return;
    settle(kWatchSeconds);
    picture("2-shown");
    checkCorners();
    tap();
    picture("3-tapped");
    const bool hasFinished = finish();
    picture("4-finished");
    checkCorners();
    if (hasFinished) close();
  }

 private:
  bool reach(Stage stage, double seconds, const std::string& otherwise) {
    runUntil([&] { return session_.stage() == stage || session_.stage() == Stage::failed; },
             seconds);
    if (session_.stage() == stage) return true;
    if (session_.stage() != Stage::failed)
      observations_.breach(
          Rule::plays, otherwise + " after " + std::to_string(static_cast<int>(seconds)) + " s");
    return false;
  }

  void checkCorners() {
    session_.checkCorners();
    settle(kSettleSeconds);
  }

  void tap() {
    observations_.note(Source::host, "taps the page");
    stage::click(window_, plan_.tapX * gtk_widget_get_width(GTK_WIDGET(window_)),
                 plan_.tapY * gtk_widget_get_height(GTK_WIDGET(window_)));
    settle(kTapSeconds);
  }

  /// Waits for the end of the countdown or the video: then close is at the top.
  bool finish() {
    const bool isVideo = creative_.isVideo();
    const double countdown = creative_.ad["crea"]["adur"];
    const double limit = isVideo ? kVideoSeconds : countdown + kShowSeconds;
    const bool hasFinished = runUntil(
        [&] {
          if (isVideo && !observations_.hasEndedVideo) return false;
          for (const auto& control : session_.controls())
            if (control.isAtTop) return true;
          return false;
        },
        limit);
    if (hasFinished) {
      observations_.note(Source::host, "the ad has finished");
      settle(kSettleSeconds);
    } else {
      observations_.breach(Rule::plays, isVideo ? "the page does not report the end of its video"
                                                : "the close control does not appear");
    }
    return hasFinished;
  }

  void close() {
    // The first press may close a menu that the tap has opened.
    for (int times = 0; times < 2 && session_.stage() == Stage::shown; ++times) {
      for (const auto& control : session_.controls())
        if (control.isAtTop) stage::click(window_, control.centre.x, control.centre.y);
      settle(kTapSeconds);
    }
    if (!reach(Stage::closed, kCloseSeconds, "the ad is not closed")) return;
    // A closing page still runs for a moment.
    settle(kSettleSeconds);
    runUntil(
        [&] {
          const auto report = session_.report();
          return report && report->dismissed;
        },
        kReportSeconds);
  }

  void picture(const std::string& name) {
    if (!plan_.screenshots.empty())
      stage::saveScreenshot(window_, plan_.screenshots / (name + ".png"));
  }

  /// A ready ad is not on screen yet, so WebKit draws the picture.
  void pictureOfPage(const std::string& name) {
    const auto page = session_.observer().page();
    if (plan_.screenshots.empty() || !page) return;
    bool isDone = false;
    webkit_web_view_get_snapshot(
        page.get(), WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr, runAsync,
        asyncData([&](GObject* source, GAsyncResult* result) {
          const GObjectPtr<GdkTexture> texture(
              webkit_web_view_get_snapshot_finish(WEBKIT_WEB_VIEW(source), result, nullptr));
          if (texture)
            gdk_texture_save_to_png(texture.get(), (plan_.screenshots / (name + ".png")).c_str());
          isDone = true;
        }));
    while (!isDone) g_main_context_iteration(nullptr, TRUE);
  }

  Session& session_;
  const Creative& creative_;
  GtkWindow* const window_;
  Observations& observations_;
  const Plan& plan_;
};

}  // namespace

void playThrough(Session& session, const Creative& creative, GtkWindow* window,
                 Observations& observations, const Plan& plan) {
  Player(session, creative, window, observations, plan).play();
}

}  // namespace kva::preview
