#include <Kelvara/KelvaraGtk.h>

#include <gtk/gtk.h>
#ifdef GDK_WINDOWING_WAYLAND
#include <gdk/wayland/gdkwayland.h>
#endif

#include <optional>
#include <utility>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/HostCallback.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <platform/linux/LinuxPlatform.h>
#include <platform/linux/ProcessOutput.h>
#include <platform/linux/Threads.h>
#include <platform/linux/gtk/Application.h>

namespace kva::gtk {

namespace {

/// The options as this library knows them. A field that the host does not know, because its options
/// end before it, has its default.
HostOptions knownOptions(const HostOptions& given, std::size_t size) {
  HostOptions known;
  const auto copy = [&](auto HostOptions::*... fields) {
    const auto endOf = [&](auto field) {
      return reinterpret_cast<const char*>(&(known.*field) + 1) -
             reinterpret_cast<const char*>(&known);
    };
    ((endOf(fields) <= static_cast<std::ptrdiff_t>(size) ? void(known.*fields = given.*fields)
                                                         : void()),
     ...);
  };
  using Options = HostOptions;
  copy(&Options::bundleId, &Options::appVersion, &Options::mainBundle, &Options::userDefaults,
       &Options::productionAPIBase, &Options::sandboxAPIBase, &Options::advertisingIdentifier,
       &Options::trackingAuthorized, &Options::safeAreaInsets, &Options::networkPolicy,
       &Options::openURL, &Options::logLevel, &Options::logSink);
  return known;
}

std::string orBuiltIn(std::string base, const char* builtIn) {
  return base.empty() ? builtIn : std::move(base);
}

/// Null means standard output. With level `none` every line is dropped, even if the level changes
/// later.
std::shared_ptr<LogOutput> logOutput(const HostOptions& options) {
  if (options.logLevel == LogLevel::none)
    return std::make_shared<CallbackOutput>([](kva::LogLevel, const std::string&) {});
  if (!options.logSink) return nullptr;
  return std::make_shared<CallbackOutput>(
      [sink = options.logSink](kva::LogLevel level, const std::string& line) {
        const HostCallback callback;
        sink(static_cast<LogLevel>(level), line);
      });
}

LinuxOptions linuxOptions(const HostOptions& options) {
  return {
      .bundleId = options.bundleId,
      .appVersion = options.appVersion,
      .mainBundle = options.mainBundle,
      .userDefaults = options.userDefaults,
      .apiBases = {.production = orBuiltIn(options.productionAPIBase, KELVARA_PRODUCTION_API_BASE),
                   .sandbox = orBuiltIn(options.sandboxAPIBase, KELVARA_SANDBOX_API_BASE)},
      .advertisingIdentifier = options.advertisingIdentifier,
      .trackingAuthorized = options.trackingAuthorized,
      .reachability = options.networkPolicy == NetworkPolicy::assumeReachable
                          ? ReachabilityPolicy::assumeReachable
                          : ReachabilityPolicy::followSystem,
      .logOutput = logOutput(options)};
}

Platform withApplication(Platform ports, std::shared_ptr<HostApplication> application) {
  ports.application = std::move(application);
  return ports;
}

/// Logs an error if the script is missing: no ad can load then, and the host would otherwise notice
/// only after its first won bid.
void warnWithoutResources() {
  if (mraidJSFile()) return;
  std::string tried;
  for (const auto& path : kvaBundlePaths())
    tried += (tried.empty() ? "" : " and ") + (path / "mraid.js").native();
  Log::e("No ad can be loaded: there is no resource bundle. Tried " + tried +
         ". Put it beside the executable with kelvara_embed_resources.");
}

/// Logs an error if pages cannot be drawn: WebKit passes them to the compositor in buffers of the
/// GPU. If the compositor takes none, WebKit does not notice, and the window stops drawing.
void warnIfPagesAreNotDrawn() {
#ifdef GDK_WINDOWING_WAYLAND
  auto* display = gdk_display_get_default();
  if (!GDK_IS_WAYLAND_DISPLAY(display) || g_getenv("WEBKIT_DISABLE_DMABUF_RENDERER")) return;
  if (gdk_wayland_display_query_registry(display, "zwp_linux_dmabuf_v1")) return;
  Log::e(
      "No ad will be drawn: this Wayland compositor takes no buffers of the GPU. "
      "Start the program with WEBKIT_DISABLE_DMABUF_RENDERER=1 in its environment.");
#endif
}

void requireMainThread(const char* what) {
  if (!isMainThread()) fatal(std::string(what) + " belongs on the main thread");
}

}  // namespace

struct Host::Impl {
  explicit Impl(const HostOptions& options)
      : linux(makeLinuxPlatform(linuxOptions(options))),
        application(std::make_shared<Application>(Application::Options{
            .safeAreaInsets = options.safeAreaInsets,
            .openURL = options.openURL,
            .shapeChanged = [device = linux.device](
                                DeviceOrientation shape) { device->setWindowOrientation(shape); },
            .logError = [](const std::string& line) { Log::e(line); },
            .stateChanged =
                [center = linux.ports.notificationCenter] {
                  center->post(kApplicationStateDidChangeNotification, nullptr);
                }})),
        runtime(withApplication(linux.ports, application)) {
    Log::shared().setLogLevel(static_cast<kva::LogLevel>(options.logLevel));
    warnWithoutResources();
    warnIfPagesAreNotDrawn();
  }
  // Tears down the ads on screen while the runtime still exists.
  ~Impl() { application->leaveWindows(); }

  LinuxPlatform linux;
  std::shared_ptr<Application> application;
  Runtime runtime;
};

Host::Host(const HostOptions& options, std::size_t size) {
  requireMainThread("a kva::gtk::Host");
  if (!gtk_is_initialized() && !gtk_init_check())
    fatal("a kva::gtk::Host needs a display, and GTK could not open one");
  impl_ = std::make_unique<Impl>(knownOptions(options, size));
}

Host::~Host() {
  requireMainThread("the end of a kva::gtk::Host");
  if (HostCallback::isRunning()) fatal("a kva::gtk::Host is destroyed in a callback of the SDK");
}

std::shared_ptr<ViewController> Host::viewController(GtkWindow* window) {
  requireMainThread("kva::gtk::Host::viewController");
  if (!GTK_IS_WINDOW(window)) fatal("kva::gtk::Host::viewController was given no GtkWindow");
  return impl_->application->viewController(window);
}

std::shared_ptr<ViewController> Host::viewController() {
  requireMainThread("kva::gtk::Host::viewController");
  return impl_->application->window();
}

void Host::pump() {
  constexpr gint64 kMicroseconds = 10'000;
  requireMainThread("kva::gtk::Host::pump");
  const gint64 end = g_get_monotonic_time() + kMicroseconds;
  while (g_main_context_iteration(nullptr, FALSE) && g_get_monotonic_time() < end) {
  }
}

}  // namespace kva::gtk
