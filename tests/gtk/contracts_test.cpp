// The contracts of the view ports, with GTK's views and WebKit's pages.
#include "gtk/Stage.h"

#include <platform/contract/ViewContract.h>
#include <platform/contract/WebViewContract.h>

namespace kva::test {
namespace {

class Display : public testing::Environment {
  void SetUp() override { ASSERT_TRUE(gtk_init_check()) << "these tests need a display"; }
};
[[maybe_unused]] auto* const display = testing::AddGlobalTestEnvironment(new Display);

using gtk::test::Stage;
INSTANTIATE_TYPED_TEST_SUITE_P(Gtk, ViewContract, Stage);

struct Page : Stage {
  void letLoad(WebView&) {}
  void letFail(WebView&) {}
  void navigatePage(WebView& webView, const std::string& url) {
    webView.evaluateJavaScript("location.href = '" + url + "'", nullptr);
  }
  std::string runDialog(WebView& webView, const ScriptDialog& dialog) {
    using enum ScriptDialog::Kind;
    const std::string function = dialog.kind == alert     ? "alert"
                                 : dialog.kind == confirm ? "confirm"
                                                          : "prompt";
    return evaluate(webView, function + "('" + dialog.message + "', '" + dialog.defaultText + "')");
  }
};
struct PageFromPool : Page {
  PageFromPool() {
    application().prepareWebView();
    EXPECT_TRUE(spinUntil(
        [this] { return static_cast<gtk::Application&>(application()).hasReadyWebView(); }));
  }
};
using Pages = testing::Types<Page, PageFromPool>;
INSTANTIATE_TYPED_TEST_SUITE_P(Gtk, WebViewContract, Pages);

}  // namespace
}  // namespace kva::test
