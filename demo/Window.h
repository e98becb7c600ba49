#pragma once

#include <gtk/gtk.h>

#include <Kelvara/KVABidLoader.h>

#include <functional>
#include <string>

#include "demo/Journal.h"

namespace demo {

/// A switch: its initial state and its action.
struct Toggle {
  std::function<void(bool)> set;
  bool isOn = false;
};

/// The actions of the window's controls. Called on the main thread.
struct Actions {
  std::function<void(kva::KVABidType)> bid, load, show, lose;
  Toggle consent, gdpr, ccpa, muted;
  std::function<void(const std::string&)> setScenario;
};

/// The demo's window: the last bid, the controls, and the live list of events. Main thread only.
class Window {
 public:
  Window(GtkApplication* application, Actions actions);
  /// Closes the window.
  ~Window();
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  GtkWindow* window() const { return window_; }  ///< null after the user has closed it
  // These do nothing after the user has closed the window.
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
