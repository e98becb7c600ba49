// A gtkmm 4 host. Run kelvara-sandbox first.
#include <glibmm/main.h>
#include <gtkmm.h>

#include "../Ads.h"

class Window : public Gtk::Window {
 public:
  Window() {
    set_title("Kelvara in gtkmm");
    set_default_size(960, 640);
    set_child(box_);
    for (Gtk::Widget* widget :
         {static_cast<Gtk::Widget*>(&label_), static_cast<Gtk::Widget*>(&interstitial_),
          static_cast<Gtk::Widget*>(&rewarded_)})
      box_.append(*widget);
    interstitial_.signal_clicked().connect([this] { ads_->showInterstitial(over()); });
    rewarded_.signal_clicked().connect([this] { ads_->showRewarded(over()); });
    ads_->start();
  }

 private:
  example::Over over() { return host_.viewController(gobj()); }

  kva::gtk::Host host_{example::options()};
  Gtk::Box box_{Gtk::Orientation::VERTICAL, 12};
  Gtk::Label label_{"Starting"};
  Gtk::Button interstitial_{"_Interstitial", true}, rewarded_{"_Rewarded", true};
  std::shared_ptr<example::Ads> ads_ = std::make_shared<example::Ads>([this](std::string text) {
    Glib::MainContext::get_default()->invoke([this, text] {
      label_.set_text(text);
      return false;
    });
  });
};

int main(int argc, char** argv) {
  return Gtk::Application::create("com.example.gtkmm")->make_window_and_run<Window>(argc, argv);
}
