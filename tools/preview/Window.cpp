#include "Window.h"

#include <platform/linux/gtk/LayoutWidget.h>
#include <platform/linux/gtk/NativeView.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace kva::preview {
namespace {

using gtk::PendingCall;
using nlohmann::json;

constexpr int kInspectorWidth = 440;
constexpr int kMargin = 16;
constexpr guint kRefreshMilliseconds = 60;
// An editor may write a file in several steps.
constexpr guint kSaveMilliseconds = 250;
// Enough to know the frame rate.
constexpr int kJudgeAfterSeconds = 4;

struct Device {
  const char* name;
  Size size;
};
constexpr Device kDevices[] = {
    {"Phone 360 × 640", {360, 640}},       {"Small phone 320 × 480", {320, 480}},
    {"Large phone 412 × 915", {412, 915}}, {"Tablet 768 × 1024", {768, 1024}},
    {"Desktop 1280 × 720", {1280, 720}},   {"Panel 480 × 272", {480, 272}}};

struct SafeArea {
  const char* name;
  EdgeInsets insets;
};
constexpr SafeArea kSafeAreas[] = {
    {"No unsafe edges", {}}, {"Notch", {44, 0, 34, 0}}, {"Bezel", {24, 24, 24, 24}}};

constexpr const char* kLanguages[] = {"en", "de", "tr", "fr", "es", "ar", "he"};

struct Network {
  const char* name;
  Link link;
};
const Network kNetworks[] = {{"Fast network", {}},
                             {"Slow network", {std::chrono::milliseconds(400), 100'000}},
                             {"Very slow network", {std::chrono::milliseconds(1500), 20'000}}};

constexpr const char* kStyle =
    ".preview { background: #303236; }"
    ".inspector { background: #f6f6f7; color: #1c1d1f; padding: 12px; }"
    ".inspector textview, .inspector textview text { background: #fff; color: #1c1d1f;"
    "  font-size: 11px; }"
    ".inspector .state { font-family: monospace; font-size: 12px; }"
    ".inspector .breaches { color: #b3261e; font-size: 13px; }"
    ".inspector .breaches.none { color: #146c2e; }"
    ".closed { color: #fff; font-size: 18px; }";

template <class Table>
std::vector<std::string> namesOf(const Table& table) {
  std::vector<std::string> names;
  for (const auto& entry : table) names.push_back(entry.name);
  return names;
}

/// "360 x 640 at 0, 44" of a rectangle or a size.
std::string text(const json& rect) {
  if (!rect.is_object()) return "?";
  const auto number = [&](const char* key) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%g", rect.value(key, 0.0));
    return std::string(digits);
  };
  std::string size = number("width") + " × " + number("height");
  return rect.contains("x") ? size + " at " + number("x") + ", " + number("y") : size;
}

std::string rounded(double value) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%.1f", value);
  return digits;
}

std::string reportText(const std::optional<sandbox::ReportRecord>& report) {
  if (!report) return "nothing yet";
  std::string text = report->impression ? "impression" : "no impression";
  if (report->clicked) text += ", click";
  if (report->quarter > 0) text += ", quarter " + std::to_string(report->quarter);
  if (report->completed) text += ", completed";
  if (report->dismissed) text += ", closed";
  return text;
}

}  // namespace

Window::Window(Request request, Settings settings, Limits limits, Size device)
    : request_(std::move(request)),
      settings_(std::move(settings)),
      limits_(limits),
      device_(device),
      safeArea_(settings_.safeArea),
      window_(GTK_WINDOW(gtk_window_new())),
      content_(gtk_label_new("The ad is not on screen.")),
      loop_(g_main_loop_new(nullptr, FALSE)) {
  auto* style = gtk_css_provider_new();
  gtk_css_provider_load_from_data(style, kStyle, -1);
  gtk_style_context_add_provider_for_display(gtk_widget_get_display(GTK_WIDGET(window_)),
                                             GTK_STYLE_PROVIDER(style),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(style);
  gtk_window_set_title(window_, ("Kelvara preview: " + request_.what).c_str());
  gtk_window_set_default_size(window_, 2 * kMargin + 640 + kInspectorWidth, 820);
  gtk_widget_add_css_class(GTK_WIDGET(window_), "preview");
  gtk_widget_add_css_class(content_, "closed");
  gtk_widget_set_size_request(content_, 320 + kInspectorWidth, 360);
  gtk_window_set_child(window_, content_);
  // Not the window's child: the SDK hides that while an ad is on screen.
  inspector_ = makeInspector();
  gtk_widget_set_parent(inspector_, GTK_WIDGET(window_));
  connections_.push_back(connect<gboolean()>(window_, "close-request", [this] {
    g_main_loop_quit(loop_);
    return TRUE;
  }));
  reload();
  everySecond();
  gtk_window_present(window_);
}

Window::~Window() {
  if (observations_) observations_->changed = nullptr;
  session_.reset();
  gtk_widget_unparent(inspector_);
  gtk_window_destroy(window_);
  g_main_loop_unref(loop_);
}

void Window::run() { g_main_loop_run(loop_); }

void Window::addChoice(GtkWidget* box, const std::string& name,
                       const std::vector<std::string>& choices, Chosen chosen) {
  auto* list = gtk_string_list_new(nullptr);
  gtk_string_list_append(list, (name + " as given").c_str());
  for (const auto& choice : choices) gtk_string_list_append(list, choice.c_str());
  auto* choose = gtk_drop_down_new(G_LIST_MODEL(list), nullptr);
  gtk_widget_set_hexpand(choose, TRUE);
  connections_.push_back(connect<void(GParamSpec*)>(
      choose, "notify::selected", [choose, chosen = std::move(chosen)](GParamSpec*) {
        const guint selected = gtk_drop_down_get_selected(GTK_DROP_DOWN(choose));
        chosen(selected == 0 ? std::nullopt : std::optional<std::size_t>(selected - 1));
      }));
  gtk_box_append(GTK_BOX(box), choose);
}

void Window::addButton(GtkWidget* box, const char* name, std::function<void()> pressed) {
  auto* button = gtk_button_new_with_label(name);
  connections_.push_back(connect<void()>(button, "clicked", std::move(pressed)));
  gtk_box_append(GTK_BOX(box), button);
}

GtkWidget* Window::makeControls() {
  auto* rows = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  const auto addRow = [&] {
    auto* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    gtk_box_append(GTK_BOX(rows), row);
    return row;
  };
  auto* row = addRow();
  addChoice(row, "Size", namesOf(kDevices), [this, given = device_](auto index) {
    device_ = index ? kDevices[*index].size : given;
    gtk_widget_queue_resize(GTK_WIDGET(window_));
  });
  addButton(row, "Rotate", [this] { rotate(); });
  addButton(row, "Reload", [this] { reload(); });

  row = addRow();
  addChoice(row, "Edges", namesOf(kSafeAreas), [this, given = safeArea_](auto index) {
    safeArea_ = index ? kSafeAreas[*index].insets : given;
    reload();
  });
  addChoice(row, "Language", {std::begin(kLanguages), std::end(kLanguages)},
            [this, given = settings_.language](auto index) {
              settings_.language = index ? kLanguages[*index] : given;
              reload();
            });

  row = addRow();
  addChoice(row, "Network", namesOf(kNetworks), [this, given = settings_.link](auto index) {
    settings_.link = index ? kNetworks[*index].link : given;
    reload();
  });
  auto* mute = gtk_check_button_new_with_label("Muted");
  gtk_check_button_set_active(GTK_CHECK_BUTTON(mute), settings_.isMuted);
  connections_.push_back(connect<void()>(mute, "toggled", [this, mute] {
    settings_.isMuted = gtk_check_button_get_active(GTK_CHECK_BUTTON(mute));
    reload();
  }));
  gtk_box_append(GTK_BOX(row), mute);
  return rows;
}

GtkWidget* Window::makeInspector() {
  auto* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 10);
  gtk_widget_add_css_class(box, "inspector");
  gtk_box_append(GTK_BOX(box), makeControls());
  const auto addLabel = [&](const char* style) {
    auto* label = gtk_label_new(nullptr);
    gtk_widget_add_css_class(label, style);
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    gtk_label_set_wrap(GTK_LABEL(label), TRUE);
    gtk_label_set_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_selectable(GTK_LABEL(label), TRUE);
    gtk_box_append(GTK_BOX(box), label);
    return label;
  };
  state_ = addLabel("state");
  breaches_ = addLabel("breaches");
  records_ = gtk_text_view_new();
  gtk_text_view_set_editable(GTK_TEXT_VIEW(records_), FALSE);
  gtk_text_view_set_monospace(GTK_TEXT_VIEW(records_), TRUE);
  gtk_text_view_set_wrap_mode(GTK_TEXT_VIEW(records_), GTK_WRAP_WORD_CHAR);
  auto* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(records_));
  for (const auto& [source, colour] :
       {std::pair{Source::sdk, "#0b57d0"}, std::pair{Source::page, "#146c2e"},
        std::pair{Source::console, "#7a4f01"}, std::pair{Source::network, "#5f6368"},
        std::pair{Source::host, "#8e24aa"}})
    gtk_text_buffer_create_tag(buffer, std::string(name(source)).c_str(), "foreground", colour,
                               nullptr);
  auto* scroller = gtk_scrolled_window_new();
  gtk_widget_set_vexpand(scroller, TRUE);
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), records_);
  gtk_box_append(GTK_BOX(box), scroller);
  return box;
}

void Window::reload() {
  if (observations_) observations_->changed = nullptr;
  session_.reset();
  observations_ = std::make_unique<Observations>();
  observations_->changed = [this] { refreshSoon(); };
  isShown_ = false;
  secondsShown_ = 0;
  recordsShown_ = 0;
  gtk_text_buffer_set_text(gtk_text_view_get_buffer(GTK_TEXT_VIEW(records_)), "", 0);
  const auto creative = readCreative(request_);
  if (!creative) return observations_->breach(Rule::plays, creative.error());
  settings_.safeArea = safeArea();
  session_ = std::make_unique<Session>(*creative, settings_, window_, *observations_);
  // The SDK lays its layer out over the whole window; here, over the device.
  gtk_widget_set_layout_manager(
      GTK_WIDGET(window_),
      gtk::windowLayoutNew([this](int width, int height) { place(width, height); }));
  watch(*creative);
  refreshSoon();
}

void Window::watch(const Creative& creative) {
  changes_.clear();
  monitors_.clear();
  for (const auto& source : creative.sources) {
    const GObjectPtr<GFile> file(g_file_new_for_path(source.c_str()));
    GObjectPtr<GFileMonitor> monitor(
        g_file_monitor(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr));
    if (!monitor) continue;
    changes_.push_back(connect<void(GFile*, GFile*, GFileMonitorEvent)>(
        monitor.get(), "changed", [this](GFile*, GFile*, GFileMonitorEvent) {
          reload_ = PendingCall::after(kSaveMilliseconds, [this] { reload(); });
        }));
    monitors_.push_back(std::move(monitor));
  }
}

Size Window::device() const { return isRotated_ ? Size{device_.height, device_.width} : device_; }

// A device that lies on its right side has its upper edge at the left.
EdgeInsets Window::safeArea() const {
  if (!isRotated_) return safeArea_;
  return {safeArea_.right, safeArea_.top, safeArea_.left, safeArea_.bottom};
}

void Window::rotate() {
  isRotated_ = !isRotated_;
  gtk_widget_queue_resize(GTK_WIDGET(window_));
  // The SDK is told the unsafe edges once.
  if (safeArea_ != EdgeInsets{}) reload();
}

/// The height of a title bar that GTK draws.
int Window::contentTop() const {
  graphene_point_t origin{0, 0}, inWindow{0, 0};
  if (!gtk_widget_compute_point(content_, GTK_WIDGET(window_), &origin, &inWindow)) return 0;
  return static_cast<int>(inWindow.y);
}

void Window::place(int width, int height) {
  if (!session_) return;
  const auto allocate = [](GtkWidget* widget, double x, double y, Size size, double scale) {
    int minimum = 0;
    for (auto orientation : {GTK_ORIENTATION_HORIZONTAL, GTK_ORIENTATION_VERTICAL})
      gtk_widget_measure(widget, orientation, -1, &minimum, nullptr, nullptr, nullptr);
    const graphene_point_t origin{static_cast<float>(x), static_cast<float>(y)};
    auto* transform = gsk_transform_translate(nullptr, &origin);
    const auto factor = static_cast<float>(scale);
    if (scale < 1) transform = gsk_transform_scale(transform, factor, factor);
    gtk_widget_allocate(widget, static_cast<int>(size.width), static_cast<int>(size.height), -1,
                        transform);
  };
  const int top = contentTop();
  const double areaWidth = width - kInspectorWidth, areaHeight = height - top;
  const Size size = device();
  const double scale = std::min(
      {1.0, (areaWidth - 2 * kMargin) / size.width, (areaHeight - 2 * kMargin) / size.height});
  const auto layer = std::static_pointer_cast<gtk::NativeView>(session_->viewController()->view());
  layer->setRootSize(size);
  layer->setClipsToBounds(true);  // a page on standby is beside the device
  allocate(layer->widget(), (areaWidth - scale * size.width) / 2,
           top + (areaHeight - scale * size.height) / 2, size, scale);
  allocate(content_, 0, top, {areaWidth, areaHeight}, 1);
  allocate(inspector_, areaWidth, top, {kInspectorWidth, areaHeight}, 1);
}

void Window::refreshSoon() {
  refresh_ = PendingCall::after(kRefreshMilliseconds, [this] { refresh(); });
}

void Window::refresh() {
  if (session_ && session_->stage() == Session::Stage::ready && !std::exchange(isShown_, true))
    session_->show();
  showState();
  appendRecords();
}

void Window::everySecond() {
  tick_ = PendingCall::after(1000, [this] { everySecond(); });
  if (!session_ || session_->stage() != Session::Stage::shown) return;
  session_->checkCorners();
  if (++secondsShown_ == kJudgeAfterSeconds) observations_->judge(limits_);
  showState();
}

void Window::showState() {
  const json& page = observations_->page;
  const json timers = page.value("timers", json::object());
  std::string lines =
      "state        " + page.value("state", std::string("none")) +
      (page.value("viewable", false) ? ", viewable" : ", not viewable") + "\n" + "position     " +
      text(page.value("currentPosition", json())) + "\n" + "default      " +
      text(page.value("defaultPosition", json())) + "\n" + "largest      " +
      text(page.value("maxSize", json())) + ", screen " + text(page.value("screenSize", json())) +
      "\n" + "orientation  " + page.value("orientation", std::string("?")) + "\n" +
      "timers       " + std::to_string(timers.value("waiting", 0)) + " waiting, " +
      std::to_string(timers.value("repeating", 0)) + " repeating\n" + "frames       " +
      rounded(page.value("framesPerSecond", 0.0)) + " a second\n" + "loaded       " +
      std::to_string(observations_->weight()) + " bytes, ready in " +
      std::to_string(std::lround(1000 * observations_->readySeconds)) + " ms\n";
  if (const json video = page.value("video", json()); video.is_object())
    lines += "video        " + rounded(video.value("current", 0.0)) + " of " +
             rounded(video.value("duration", 0.0)) + " s" +
             (video.value("muted", false) ? ", muted" : "") + "\n";
  lines += "server       " + (session_ ? reportText(session_->report()) : "");
  gtk_label_set_text(GTK_LABEL(state_), lines.c_str());

  std::string broken;
  for (const auto& [rule, id, promise] : rules())
    for (const auto& breach : observations_->breachesOf(rule))
      broken += (broken.empty() ? "" : "\n") + std::string(id) + ": " + breach;
  (broken.empty() ? gtk_widget_add_css_class : gtk_widget_remove_css_class)(breaches_, "none");
  gtk_label_set_text(GTK_LABEL(breaches_), broken.empty() ? "No rule is broken." : broken.c_str());
}

void Window::appendRecords() {
  auto* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(records_));
  GtkTextIter end;
  for (const auto& records = observations_->records(); recordsShown_ < records.size();
       ++recordsShown_) {
    const auto& [seconds, source, what] = records[recordsShown_];
    const std::string kind(name(source));
    char time[32];
    std::snprintf(time, sizeof time, "%6.2f ", seconds);
    gtk_text_buffer_get_end_iter(buffer, &end);
    const GStringPtr line(g_utf8_make_valid((time + kind + "  " + what + "\n").c_str(), -1));
    gtk_text_buffer_insert_with_tags_by_name(buffer, &end, line.get(), -1, kind.c_str(), nullptr);
  }
  gtk_text_buffer_get_end_iter(buffer, &end);
  gtk_text_buffer_place_cursor(buffer, &end);
  gtk_text_view_scroll_to_mark(GTK_TEXT_VIEW(records_), gtk_text_buffer_get_insert(buffer), 0, TRUE,
                               0, 1);
}

}  // namespace kva::preview
