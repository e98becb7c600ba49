// A host of bare WebKitGTK, which does what host_kelvara does:
// host_webkit PAGE SCENARIO [NUMBER...]
#include <epoxy/gl.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "bench/hosts/Instruments.h"

namespace {

using namespace kva::bench;

/// Until GTK and WebKit have done what they do after a load; with two views, over five seconds.
constexpr double kSettlingSeconds = 8;
constexpr double kFadeMilliseconds = 200;

/// A host with web views that store nothing on disk and play media without a click.
class Application {
 public:
  explicit Application(std::string page) : page_(std::move(page)) {
    gtk_overlay_add_overlay(window_.overlay(), corner_);
    gtk_widget_set_halign(corner_, GTK_ALIGN_START);
    gtk_widget_set_valign(corner_, GTK_ALIGN_START);
  }

  WebKitWebView* makeView() {
    g_autoptr(WebKitWebsitePolicies) policies =
        webkit_website_policies_new_with_policies("autoplay", WEBKIT_AUTOPLAY_ALLOW, nullptr);
    auto* view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_,
                                              "network-session", session_, "website-policies",
                                              policies, nullptr));
    return static_cast<WebKitWebView*>(g_object_ref_sink(view));
  }
  /// Puts the view in a corner of one pixel.
  void hide(WebKitWebView* view) {
    gtk_widget_set_size_request(GTK_WIDGET(view), 1, 1);
    gtk_fixed_put(GTK_FIXED(corner_), GTK_WIDGET(view), 0, 0);
  }
  /// Covers the window.
  void cover(WebKitWebView* view) { gtk_overlay_add_overlay(window_.overlay(), GTK_WIDGET(view)); }
  /// Moves the view from the corner over the whole window.
  void reparent(WebKitWebView* view) {
    gtk_fixed_remove(GTK_FIXED(corner_), GTK_WIDGET(view));
    gtk_widget_set_size_request(GTK_WIDGET(view), -1, -1);
    cover(view);
  }
  void remove(WebKitWebView* view) {
    gtk_overlay_remove_overlay(window_.overlay(), GTK_WIDGET(view));
    g_object_unref(view);
  }
  void loadBlank(WebKitWebView* view) {
    webkit_web_view_load_uri(view, "about:blank");
    waitForLoad(view);
  }
  void loadPage(WebKitWebView* view) {
    webkit_web_view_load_html(view, page_.c_str(), nullptr);
    waitForLoad(view);
  }
  GtkWindow* window() const { return window_.window(); }

 private:
  static void loadChanged(WebKitWebView*, WebKitLoadEvent event, bool* isFinished) {
    if (event == WEBKIT_LOAD_FINISHED) *isFinished = true;
  }
  static void waitForLoad(WebKitWebView* view) {
    bool isFinished = false;
    const gulong handler =
        g_signal_connect(view, "load-changed", G_CALLBACK(loadChanged), &isFinished);
    runUntil([&] { return isFinished; });
    g_signal_handler_disconnect(view, handler);
  }

  HostWindow window_;
  GtkWidget* corner_ = gtk_fixed_new();
  WebKitWebContext* context_ = webkit_web_context_new();
  WebKitNetworkSession* session_ = webkit_network_session_new_ephemeral();
  std::string page_;
};

void loadCold(Application& application, double count, double pause) {
  runFor(kStartSeconds);
  for (int i = 0; i < count; ++i) {
    if (i > 0 && pause > 0) runFor(pause);
    const double begin = now();
    auto* view = application.makeView();
    application.cover(view);
    application.loadPage(view);
    report("load", now() - begin);
    application.remove(view);
  }
}

void loadWarm(Application& application) {
  auto* view = application.makeView();
  application.cover(view);
  application.loadBlank(view);
  runFor(kStartSeconds);
  const double begin = now();
  application.loadPage(view);
  report("load", now() - begin);
}

WebKitWebView* loadHidden(Application& application) {
  auto* view = application.makeView();
  application.hide(view);
  application.loadPage(view);
  runFor(1);
  return view;
}

void showView(Application& application) {
  auto* view = loadHidden(application);
  PixelWatch watch(application.window());
  const double begin = now();
  application.reparent(view);
  runFor(1);
  const auto shown = watch.since(begin);
  report("firstPixel", shown.firstPixel);
  report("finalColour", shown.finalColour);
  report("darkest", shown.darkest);
}

struct Fade {
  double from, to, begin = now();
};

/// Changes the opacity of the view, at first fast and then slowly.
void fade(WebKitWebView* view, double from, double to) {
  gtk_widget_set_opacity(GTK_WIDGET(view), from);
  const guint ticks = gtk_widget_add_tick_callback(
      GTK_WIDGET(view),
      [](GtkWidget* widget, GdkFrameClock*, gpointer data) -> gboolean {
        const auto& fade = *static_cast<Fade*>(data);
        const double left = 1 - std::min(1.0, (now() - fade.begin) / kFadeMilliseconds);
        gtk_widget_set_opacity(widget, fade.to + (fade.from - fade.to) * left * left);
        return G_SOURCE_CONTINUE;
      },
      new Fade{from, to}, [](gpointer data) { delete static_cast<Fade*>(data); });
  runFor(kFadeMilliseconds / 1e3);
  gtk_widget_remove_tick_callback(GTK_WIDGET(view), ticks);
  gtk_widget_set_opacity(GTK_WIDGET(view), to);
}

void measureGaps(Application& application) {
  auto* view = loadHidden(application);
  {
    LoopGap gap;
    application.reparent(view);
    fade(view, 0, 1);
    runFor(0.3);
    report("gapAtShow", gap.longest());
  }
  LoopGap gap;
  fade(view, 1, 0);
  application.remove(view);
  runFor(0.3);
  report("gapAtDismissal", gap.longest());
}

/// The page on screen, and a blank view besides.
void keepViewOnScreen(Application& application, double seconds) {
  auto* blank = application.makeView();
  application.hide(blank);
  application.loadBlank(blank);
  auto* view = application.makeView();
  application.cover(view);
  application.loadPage(view);
  runFor(kSettlingSeconds);
  reportCost(seconds);
}

void keepBlankView(Application& application, double seconds) {
  auto* view = application.makeView();
  application.hide(view);
  application.loadBlank(view);
  runFor(kSettlingSeconds);
  reportCost(seconds);
  report("memory", privateMemory());
}

/// What draws: the renderers of GTK and of OpenGL.
void describe(const Application& application) {
  auto* native = GTK_NATIVE(application.window());
  std::printf("GTK draws with %s", G_OBJECT_TYPE_NAME(gtk_native_get_renderer(native)));
  g_autoptr(GdkGLContext) context =
      gdk_surface_create_gl_context(gtk_native_get_surface(native), nullptr);
  if (!context || !gdk_gl_context_realize(context, nullptr)) return;
  gdk_gl_context_make_current(context);
  std::printf(", OpenGL is %s\n", reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
  gdk_gl_context_clear_current();
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 2;
  const std::string scenario = arguments[2];
  const auto number = [&](int index) { return count > index ? std::atof(arguments[index]) : 0; };
  std::ifstream file(arguments[1]);
  gtk_init();
  Application application(std::string(std::istreambuf_iterator<char>(file), {}));
  if (scenario == "load") loadCold(application, number(3), number(4));
  if (scenario == "load-warm") loadWarm(application);
  if (scenario == "show") showView(application);
  if (scenario == "gaps") measureGaps(application);
  if (scenario == "shown") keepViewOnScreen(application, number(3));
  if (scenario == "blank") keepBlankView(application, number(3));
  if (scenario == "describe") describe(application);
}
