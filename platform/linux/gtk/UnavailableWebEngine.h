#pragma once

#include <Kelvara/Error.h>
#include <platform/linux/gtk/WebEngine.h>

namespace kva::gtk {

/// Stands in for an engine that could not be loaded. Every load of its web views fails with
/// `error`. Main thread only.
class UnavailableWebEngine final : public WebEngine {
 public:
  explicit UnavailableWebEngine(Error error) : error_(std::move(error)) {}

  void prepare() override {}
  bool hasReady() const override { return false; }
  void windowsDidChange() override {}
  std::shared_ptr<WebView> makeWebView(Rect frame,
                                       const WebViewConfiguration& configuration) override;

 private:
  const Error error_;
};

}  // namespace kva::gtk
