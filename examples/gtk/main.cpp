// The smallest GTK 4 host: both formats, each failure in its label. Run kelvara-sandbox first.
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/KVAInterstital.h>
#include <Kelvara/KVARewarded.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/KelvaraGtk.h>
using namespace kva;
std::unique_ptr<gtk::Host> host;
GtkWidget *window, *label;

void setLabel(void* text) {
  gtk_label_set_text(GTK_LABEL(label), static_cast<char*>(text));
  g_free(text);
}
void say(const std::string& text) { g_idle_add_once(setLabel, g_strdup(text.c_str())); }
void fail(const Error& error) { say(error.localizedDescription()); }
void show(KVAAd& ad) { ad.showAdFrom(host->viewController(GTK_WINDOW(window))); }

struct Delegate : KVAInterstitialDelegate, KVARewardedDelegate {
  void interstitialDidReceive(KVAInterstital& ad) override { show(ad); }
  void interstitialDidFailToReceive(KVAInterstital&, const Error& error) override { fail(error); }
  void interstitialDidFailToPresent(KVAInterstital&, const Error& error) override { fail(error); }
  void rewardedDidReceive(KVARewarded& ad) override { show(ad); }
  void rewardedDidFailToReceive(KVARewarded&, const Error& error) override { fail(error); }
  void rewardedDidFailToPresent(KVARewarded&, const Error& error) override { fail(error); }
  void rewardedDidComplete(KVARewarded&) override { say("Ten coins earned"); }
};

template <class Ad>
void addButton(GtkWidget* box, const char* text, const char* adUnit) {
  static const auto delegate = std::make_shared<Delegate>();
  static const auto ad = Ad::create();
  ad->setDelegate(delegate);
  const auto play = [](GtkButton*, const char* unit) {
    constexpr auto type =
        std::is_same_v<Ad, KVARewarded> ? KVABidType::rewarded : KVABidType::interstitial;
    KVABidLoader::loadBid(unit, type, [](auto bid, auto error) {
      error ? fail(*error) : ad->loadAd(bid, bid->price());
    });
  };
  auto* button = gtk_button_new_with_mnemonic(text);
  g_signal_connect(button, "clicked", G_CALLBACK(+play), const_cast<char*>(adUnit));
  gtk_box_append(GTK_BOX(box), button);
}

int main() {
  host.reset(new gtk::Host({.bundleId = "com.example.gtk",
                            .productionAPIBase = "http://127.0.0.1:8000/api/v1",
                            .networkPolicy = gtk::NetworkPolicy::assumeReachable}));
  auto* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  gtk_box_append(GTK_BOX(box), label = gtk_label_new("Starting"));
  addButton<KVAInterstital>(box, "_Interstitial", "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c201");
  addButton<KVARewarded>(box, "_Rewarded", "0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c202");
  window = GTK_WIDGET(g_object_new(GTK_TYPE_WINDOW, "title", "Kelvara in GTK", "child", box,
                                   "hide-on-close", TRUE, "default-width", 960, "default-height",
                                   640, "visible", TRUE, nullptr));
  Kelvara::start("5e0f6c1a-8d0b-4a52-9b3e-6f2f3c9d7a10",
                 [](auto error) { error ? fail(*error) : say("Ready"); });
  while (gtk_widget_get_visible(window)) g_main_context_iteration(nullptr, TRUE);
}
