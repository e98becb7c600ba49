#pragma once

#include <algorithm>

#include <Kelvara/platform/HostApplication.h>

namespace kva::test {

// Delegates that count or record their calls.

struct ViewRecorder : ViewDelegate {
  int moves = 0, touches = 0;
  std::function<void()> moved = [] {}, touched = [] {};

  void viewDidMoveToWindow() override {
    ++moves;
    moved();
  }
  void viewWasTouched() override {
    ++touches;
    touched();
  }
};

struct ControllerRecorder : ViewControllerDelegate {
  int cancels = 0, screenChanges = 0, tornDown = 0;
  std::function<void()> onTornDown = [] {};

  void viewControllerDidChangeOnScreen() override { ++screenChanges; }
  void viewControllerDidRequestCancel() override { ++cancels; }
  void viewControllerWasTornDown() override {
    ++tornDown;
    onTornDown();
  }
};

struct PageRecorder : WebViewDelegate {
  int finished = 0, failed = 0;
  bool allows = true;  ///< navigations
  ScriptDialogAnswer answer;
  /// The addresses of navigations, followed by their target unless it is the main frame.
  std::vector<std::string> asked;
  std::vector<std::string> windows;  ///< the addresses of requests for a new window
  std::vector<std::string> dialogs;  ///< message|default text
  std::function<void()> onQuestion;  ///< called after one of these three was recorded

  void webViewDidFinishNavigation() override { ++finished; }
  void webViewDidFailNavigation(const Error&) override { ++failed; }
  void webViewProcessDidTerminate(const Error&) override {}
  bool webViewDecidePolicy(const NavigationAction& action) override {
    using enum NavigationAction::TargetFrame;
    record(asked, addressOf(action) + (action.target == none  ? " in a new window"
                                       : action.target == sub ? " in a frame"
                                                              : ""));
    return allows;
  }
  void webViewCreateWebView(const NavigationAction& action) override {
    record(windows, addressOf(action));
  }
  ScriptDialogAnswer webViewRunScriptDialog(const ScriptDialog& dialog) override {
    record(dialogs, dialog.message + "|" + dialog.defaultText);
    return answer;
  }

  auto asksFor(const std::string& address) const { return std::ranges::count(asked, address); }

 private:
  static std::string addressOf(const NavigationAction& action) {
    return action.request ? action.request->url.absoluteString() : "no URL";
  }
  void record(std::vector<std::string>& calls, const std::string& call) {
    calls.push_back(call);
    if (onQuestion) onQuestion();
  }
};

}  // namespace kva::test
