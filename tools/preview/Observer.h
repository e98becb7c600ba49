#pragma once

#include <webkit/webkit.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Kelvara/base/Result.h>
#include <platform/linux/GlibSupport.h>

#include "Observations.h"

namespace kva {
class WebView;
}

namespace kva::preview {

/// Observes the pages that the SDK loads while it exists: both directions of the bridge, what the
/// network loads, and what a probe in the page reports. It passes everything on unchanged. One at a
/// time; main thread only. Create it before the `gtk::Host` and destroy it after.
class Observer {
 public:
  explicit Observer(Observations& observations);
  ~Observer();
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  static Observer* current() { return current_; }

  /// The page of the ad that was loaded last; null if it is gone.
  GObjectPtr<WebKitWebView> page() const { return page_.get(); }
  /// Runs a script in that page, outside the record.
  void evaluate(const std::string& script, std::function<void(Result<std::string>)> evaluated);
  /// Whether the SDK's web engine has a view ready, as in an application that has run for a while.
  std::function<bool()> hasReadyView = [] { return false; };
  /// The time of `g_get_monotonic_time` at which the ad's document was passed to the page.
  std::int64_t loadBegan = 0;

  Observations& observations() { return observations_; }
  void follow(WebKitWebView* page, std::weak_ptr<WebView> view);

 private:
  void receive(const char* message);
  void resourceStarted(WebKitWebResource* resource);
  void resourceFinished(WebKitWebResource* resource);

  static Observer* current_;
  Observations& observations_;
  WeakRef<WebKitWebView> page_;
  std::weak_ptr<WebView> view_;
  std::vector<SignalConnection> connections_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace kva::preview
