#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <platform/linux/gtk/GObject.h>

#include "Session.h"

namespace kva::preview {

/// The preview for a person: the ad at the size of a device, and an inspector beside it, in one
/// window. To the SDK the device is the window, so the ad and its controls are laid out as on it.
/// A change of most circumstances, and of the creative's files, begins a new session.
class Window {
 public:
  Window(Request request, Settings settings, Limits limits, Size device);
  ~Window();
  /// Runs until the window is closed.
  void run();

 private:
  GtkWidget* makeControls();
  GtkWidget* makeInspector();
  /// Called with the index of a choice; without one for what the command line gives.
  using Chosen = std::function<void(std::optional<std::size_t>)>;
  void addChoice(GtkWidget* box, const std::string& name, const std::vector<std::string>& choices,
                 Chosen chosen);
  void addButton(GtkWidget* box, const char* name, std::function<void()> pressed);

  void reload();
  void watch(const Creative& creative);
  void place(int width, int height);
  int contentTop() const;
  Size device() const;
  EdgeInsets safeArea() const;
  void rotate();

  void refreshSoon();
  void refresh();
  void everySecond();
  void showState();
  void appendRecords();

  const Request request_;
  Settings settings_;
  const Limits limits_;
  Size device_;  ///< upright
  EdgeInsets safeArea_;
  bool isRotated_ = false;

  GtkWindow* window_;
  GtkWidget *content_, *inspector_ = nullptr;
  GtkWidget *state_ = nullptr, *breaches_ = nullptr, *records_ = nullptr;
  GMainLoop* loop_;
  std::unique_ptr<Observations> observations_;
  std::unique_ptr<Session> session_;
  bool isShown_ = false;
  int secondsShown_ = 0;
  std::size_t recordsShown_ = 0;
  gtk::PendingCall refresh_, reload_, tick_;
  std::vector<SignalConnection> connections_, changes_;
  std::vector<GObjectPtr<GFileMonitor>> monitors_;
};

}  // namespace kva::preview
