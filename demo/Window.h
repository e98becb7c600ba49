#pragma once

#include <gtk/gtk.h>

#include <Kelvara/KVABidLoader.h>

#include <functional>
#include <string>

#include "demo/Journal.h"

namespace demo {

/// A switch as it stands at first, and what it does.
struct Toggle {
  std::function<void(bool)> set;
  bool isOn = false;
};

/// What the window's controls do; each is called on the main thread.
struct Actions {
  std::function<void(kva::KVABidType)> bid, load, show, lose;
  Toggle consent, gdpr, ccpa, muted;
  std::function<void(const std::string&)> setScenario;
};

/// The demo's window: the last bid as a picture, the controls, and the live list of events.
class Window {
 public:
  Window(GtkApplication* application, Actions actions);
  /// Closes the window.
  ~Window();
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  GtkWindow* window() const { return window_; }  ///< null once the user has closed it
  /// These do nothing any more then.
  void add(const Event& event);
  void showBid(kva::KVABidType kind, const kva::KVABidResponse& bid);

 private:
  GtkWidget* makeSidebar();
  GtkWidget* makeBidCard();
  GtkWidget* makeKind(const char* title, const char* description, kva::KVABidType kind);
  GtkWidget* makeSwitch(const char* title, const char* description, Toggle toggle);
  GtkWidget* makeScenarios();

  Actions actions_;
  GtkWindow* window_;
  GtkLabel* price_;
  GtkLabel* plan_;
  GtkLabel* kind_;
  GtkWidget* bidCard_;
  GtkListBox* events_;
};

}  // namespace demo
