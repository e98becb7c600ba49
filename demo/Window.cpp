#include "demo/Window.h"

#include <memory>
#include <utility>

#include "demo/Ads.h"

namespace demo {
namespace {

using kva::KVABidType;

constexpr const char* kStyle = R"(
window.demo { background: #12101f; color: #ece9f7; }
.sidebar { background: #191629; padding: 24px; }
.brand { font-size: 26px; font-weight: 800; color: #ffffff; }
.tagline { color: #9d96bd; }
.section { font-size: 11px; font-weight: 700; letter-spacing: 1.5px; color: #7f78a3; }
.panel { background: #211d36; border-radius: 16px; padding: 14px; }
.panel .title { font-weight: 700; color: #ffffff; }
.panel .note { font-size: 12px; color: #9d96bd; }
.panel button { background: #322c50; background-image: none; color: #ece9f7; border: none; box-shadow: none;
  border-radius: 10px; padding: 6px 4px; font-weight: 600; text-shadow: none; }
.panel button:hover { background: #3d3662; }
.panel button:active { background: #4a4277; }
.panel button.go { background: #7c5cff; color: #ffffff; }
.panel button.go:hover { background: #8e72ff; }
.panel dropdown button { background: #322c50; }
.panel switch { background: #322c50; border: none; background-image: none; }
.panel switch:checked { background: #7c5cff; }
.bid { background-image: linear-gradient(120deg, #7c5cff, #d05cff 55%, #ff7eb0); border-radius: 22px; padding: 26px 30px; }
.bid.none { background-image: linear-gradient(120deg, #2a2544, #352c55); }
.bid label { color: rgba(255,255,255,0.92); }
.bid .price { font-size: 52px; font-weight: 800; color: #ffffff; }
.bid .kind { font-weight: 700; letter-spacing: 1.5px; font-size: 12px; }
.bid .plan { font-family: monospace; font-size: 12px; }
.events, .events row { background: transparent; }
.events row { padding: 5px 4px; border-bottom: 1px solid rgba(255,255,255,0.05); }
.time { font-family: monospace; font-size: 12px; color: #7f78a3; }
.events .name { font-weight: 600; color: #ece9f7; }
.events .detail { font-size: 12px; color: #9d96bd; }
.tag { border-radius: 999px; padding: 1px 9px; font-size: 11px; font-weight: 700; color: #12101f; }
.tag.host { background: #8f88b3; } .tag.sdk { background: #6fd3ff; } .tag.bid-tag { background: #ffd27a; }
.tag.ad { background: #ff8fc0; } .tag.server { background: #8ff0b4; }
)";

GtkWidget* label(const char* text, const char* styleClass) {
  GtkWidget* made = gtk_label_new(text);
  gtk_widget_add_css_class(made, styleClass);
  gtk_label_set_xalign(GTK_LABEL(made), 0);
  return made;
}

GtkWidget* column(int spacing) { return gtk_box_new(GTK_ORIENTATION_VERTICAL, spacing); }

template <class... Widgets>
GtkWidget* fill(GtkWidget* box, Widgets... widgets) {
  (gtk_box_append(GTK_BOX(box), widgets), ...);
  return box;
}

/// Connects `function` to a widget's signal; the widget owns it.
template <class Function>
void connect(GtkWidget* widget, const char* signal, GCallback trampoline, Function function) {
  g_signal_connect_data(
      widget, signal, trampoline, new Function(std::move(function)),
      [](gpointer data, GClosure*) { delete static_cast<Function*>(data); }, GConnectFlags{});
}

GtkWidget* button(const char* text, std::function<void()> clicked) {
  GtkWidget* made = gtk_button_new_with_label(text);
  gtk_widget_set_hexpand(made, TRUE);
  connect(made, "clicked", G_CALLBACK(+[](GtkButton*, gpointer function) {
            (*static_cast<std::function<void()>*>(function))();
          }),
          std::move(clicked));
  return made;
}

}  // namespace

Window::Window(GtkApplication* application, Actions actions) : actions_(std::move(actions)) {
  GtkCssProvider* style = gtk_css_provider_new();
  gtk_css_provider_load_from_data(style, kStyle, -1);
  gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(style),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(style);

  window_ = GTK_WINDOW(gtk_application_window_new(application));
  g_signal_connect(window_, "destroy", G_CALLBACK(+[](GtkWindow*, gpointer self) {
                     static_cast<Window*>(self)->window_ = nullptr;
                   }),
                   this);
  gtk_window_set_title(window_, "Kelvara demo");
  gtk_window_set_default_size(window_, 1100, 760);
  gtk_widget_add_css_class(GTK_WIDGET(window_), "demo");

  events_ = GTK_LIST_BOX(gtk_list_box_new());
  gtk_list_box_set_selection_mode(events_, GTK_SELECTION_NONE);
  gtk_widget_add_css_class(GTK_WIDGET(events_), "events");
  GtkWidget* scroller = gtk_scrolled_window_new();
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), GTK_WIDGET(events_));
  gtk_widget_set_vexpand(scroller, TRUE);

  GtkWidget* main =
      fill(column(18), makeBidCard(), label("EVENTS, LATEST FIRST", "section"), scroller);
  gtk_widget_set_hexpand(main, TRUE);
  for (const auto set : {gtk_widget_set_margin_top, gtk_widget_set_margin_bottom,
                         gtk_widget_set_margin_start, gtk_widget_set_margin_end})
    set(main, 24);
  gtk_window_set_child(window_,
                       fill(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0), makeSidebar(), main));
}

Window::~Window() {
  if (window_) gtk_window_destroy(window_);
}

GtkWidget* Window::makeSidebar() {
  GtkWidget* privacy = fill(
      column(10), makeSwitch("Consent", "the identifier may leave", std::move(actions_.consent)),
      makeSwitch("GDPR", "the user is subject to it", std::move(actions_.gdpr)),
      makeSwitch("CCPA", "the user is subject to it", std::move(actions_.ccpa)),
      makeSwitch("Mute", "ads start silent from the next launch", std::move(actions_.muted)));
  gtk_widget_add_css_class(privacy, "panel");

  GtkWidget* sidebar = fill(
      column(14), label("Kelvara", "brand"), label("bids, loads and shows, natively", "tagline"),
      makeKind("Interstitial", "an image with an end card", KVABidType::interstitial),
      makeKind("Rewarded", "a video, watched to the end", KVABidType::rewarded),
      label("PRIVACY AND SOUND", "section"), privacy, label("THE SANDBOX SERVER", "section"),
      makeScenarios());
  gtk_widget_add_css_class(sidebar, "sidebar");
  gtk_widget_set_size_request(sidebar, 340, -1);
  gtk_widget_set_hexpand(sidebar, FALSE);
  return sidebar;
}

GtkWidget* Window::makeBidCard() {
  kind_ = GTK_LABEL(label("NO BID YET", "kind"));
  price_ = GTK_LABEL(label("—", "price"));
  plan_ = GTK_LABEL(label("request one on the left", "plan"));
  bidCard_ = fill(column(2), GTK_WIDGET(kind_), GTK_WIDGET(price_), GTK_WIDGET(plan_));
  gtk_widget_add_css_class(bidCard_, "bid");
  gtk_widget_add_css_class(bidCard_, "none");
  return bidCard_;
}

GtkWidget* Window::makeKind(const char* title, const char* description, KVABidType kind) {
  GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  gtk_box_set_homogeneous(GTK_BOX(buttons), TRUE);
  GtkWidget* show = button("Show", [this, kind] { actions_.show(kind); });
  gtk_widget_add_css_class(show, "go");
  fill(buttons, button("Bid", [this, kind] { actions_.bid(kind); }),
       button("Load", [this, kind] { actions_.load(kind); }), show,
       button("Lose", [this, kind] { actions_.lose(kind); }));
  GtkWidget* panel = fill(column(4), label(title, "title"), label(description, "note"), buttons);
  gtk_widget_add_css_class(panel, "panel");
  return panel;
}

GtkWidget* Window::makeSwitch(const char* title, const char* description, Toggle toggle) {
  GtkWidget* made = gtk_switch_new();
  gtk_switch_set_active(GTK_SWITCH(made), toggle.isOn);
  gtk_widget_set_valign(made, GTK_ALIGN_CENTER);
  connect(made, "state-set", G_CALLBACK(+[](GtkSwitch*, gboolean state, gpointer function) {
            (*static_cast<std::function<void(bool)>*>(function))(state != FALSE);
            return FALSE;
          }),
          std::move(toggle.set));
  GtkWidget* texts = fill(column(0), label(title, "title"), label(description, "note"));
  gtk_widget_set_hexpand(texts, TRUE);
  return fill(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8), texts, made);
}

GtkWidget* Window::makeScenarios() {
  static constexpr const char* kScenarios[] = {"normal",    "no-fill",   "error", "not-ok",
                                               "malformed", "truncated", "empty", "http-500",
                                               "reset",     "hang",      nullptr};
  GtkWidget* choice = gtk_drop_down_new_from_strings(kScenarios);
  connect(choice, "notify::selected",
          G_CALLBACK(+[](GtkDropDown* dropDown, GParamSpec*, gpointer function) {
            (*static_cast<std::function<void(const std::string&)>*>(function))(
                kScenarios[gtk_drop_down_get_selected(dropDown)]);
          }),
          std::move(actions_.setScenario));
  GtkWidget* panel =
      fill(column(6), label("answers \"/bid/init\" and \"/bid/load\" with", "note"), choice);
  gtk_widget_add_css_class(panel, "panel");
  return panel;
}

void Window::add(const Event& event) {
  if (!window_) return;
  const std::string milliseconds = std::to_string(static_cast<long>(event.milliseconds)) + " ms";
  const std::string source(name(event.source));
  GtkWidget* time = label(milliseconds.c_str(), "time");
  gtk_label_set_width_chars(GTK_LABEL(time), 9);
  GtkWidget* tag = label(source.c_str(), "tag");
  gtk_widget_add_css_class(tag, event.source == Source::bid ? "bid-tag" : source.c_str());
  gtk_widget_set_valign(tag, GTK_ALIGN_CENTER);
  GtkWidget* detail = label(event.detail.c_str(), "detail");
  gtk_label_set_ellipsize(GTK_LABEL(detail), PANGO_ELLIPSIZE_END);
  gtk_widget_set_hexpand(detail, TRUE);
  gtk_list_box_prepend(events_, fill(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 10), time, tag,
                                     label(event.name.c_str(), "name"), detail));
}

void Window::showBid(KVABidType kind, const kva::KVABidResponse& bid) {
  if (!window_) return;
  gtk_widget_remove_css_class(bidCard_, "none");
  gtk_label_set_text(
      kind_, kind == KVABidType::interstitial ? "LAST BID · INTERSTITIAL" : "LAST BID · REWARDED");
  gtk_label_set_text(price_, priceText(bid.price()).c_str());
  gtk_label_set_text(plan_, ("plan " + bid.planId()).c_str());
}

}  // namespace demo
