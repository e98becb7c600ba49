// The console and the contract's page in a real web view.
#include "sandbox/Client.h"
#include "support/PageScript.h"

namespace kva::sandbox {
namespace {

using test::spinUntil;
using testing::HasSubstr;

/// A window with one page.
class Browser {
 public:
  Browser() {
    gtk_window_set_child(window_, GTK_WIDGET(page_));
    gtk_window_set_default_size(window_, 1200, 800);
    gtk_window_present(window_);
    g_autoptr(WebKitUserScript) script = webkit_user_script_new(
        "window.errors = [];"
        "for (const kind of ['error', 'unhandledrejection'])"
        "  addEventListener(kind, event => errors.push(String(event.message ?? event.reason)), "
        "true)",
        WEBKIT_USER_CONTENT_INJECT_TOP_FRAME, WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr,
        nullptr);
    webkit_user_content_manager_add_script(webkit_web_view_get_user_content_manager(page_), script);
  }
  ~Browser() { gtk_window_destroy(window_); }
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  void open(const std::string& url) {
    webkit_web_view_load_uri(page_, url.c_str());
    EXPECT_TRUE(spinUntil([&] { return !webkit_web_view_is_loading(page_); }));
  }
  /// Runs a function body in the page, where `node` is the element, and returns its result.
  Json run(const std::string& selector, const std::string& body) {
    const auto result =
        test::runInPage(page_, "const node = document.querySelector(`" + selector + "`);" + body);
    const Json value = Json::parse(result, nullptr, false);
    if (value.is_discarded()) ADD_FAILURE() << selector << ": " << result;
    return value;
  }
  std::string text(const std::string& selector) { return run(selector, "return node.innerText"); }
  /// Waits until so many elements match: the page polls the server.
  bool shows(const std::string& selector, int number) {
    return spinUntil([&] {
      return run("html", "return document.querySelectorAll(`" + selector + "`).length") == number;
    });
  }
  void click(const std::string& selector) { run(selector, "node.click()"); }
  void choose(const std::string& selector, const std::string& option) {
    run(selector, "node.value = '" + option + "'; node.dispatchEvent(new Event('change'))");
  }
  /// Replaces the field's text as a user does, who then leaves the field.
  void type(const std::string& selector, const std::string& text) {
    run(selector, "node.focus(); node.select(); document.execCommand('insertText', false, '" +
                      text + "'); node.blur()");
  }
  /// Errors of the page's scripts and of what it loads.
  Json errors() { return run("html", "return errors"); }

 private:
  GtkWindow* window_ = GTK_WINDOW(gtk_window_new());
  WebKitWebView* page_ = WEBKIT_WEB_VIEW(webkit_web_view_new());
};

using SandboxConsole = SandboxTest;

TEST_F(SandboxConsole, ShowsExchangesAndSwitchesPlansAndScenarios) {
  gtk_init();
  Browser browser;
  browser.open(server.origin() + "/");

  // New exchanges appear while the page is open.
  const Json offer = data("/bid/init", bidRequest(uid));
  call("/bid/load", loadRequest(offer["bid"], offer["plans"][0]["plan"]));
  const Json shown = report(offer["bid"], {{"imp", true}, {"clck", true}});
  call("/bid/stats", statsRequest(uid, {shown}));
  call("/bid/init", bidRequest(kSomeUUID));
  ASSERT_TRUE(browser.shows("#exchanges tr.line", 5));
  EXPECT_THAT(browser.text("#why"), HasSubstr("does not know the user " + kSomeUUID));
  ASSERT_TRUE(browser.shows("#chart rect", 2));
  EXPECT_THAT(browser.text("#bids"), HasSubstr("interstitial, lamp-image\tloaded\t4.100\tshown, "
                                               "clicked"));
  browser.click("#exchanges tr.line");
  EXPECT_THAT(browser.text("#exchanges tr.bodies"), HasSubstr("\"msg\": \"uid: no such user\""));
  browser.click("#catalogue .unit button");
  EXPECT_TRUE(spinUntil([&] { return browser.text("#catalogue .unit button") == "Copied"; }));
  EXPECT_THAT(browser.text("#catalogue .unit"), HasSubstr(std::string(kInterstitialAdUnit)));

  // Every switch changes the server.
  const std::string plan =
      "#catalogue [data-plan='" + std::string(adUnits()[0].plans[0].id) + "'] ";
  browser.type(plan + "input[name=ecpm]", "777");
  browser.type(plan + "input[name=caph]", "9");
  browser.click(plan + "input[name=on]");
  browser.choose("#scenarios [data-endpoint='/bid/init']", "error");
  browser.type("#scenarios tr:first-child input", "503:Busy");
  const auto terms = [&] { return get("/control/catalogue").json()["adUnits"][0]["plans"][0]; };
  const auto scenario = [&] { return get("/control/scenarios").json()["/bid/init"]; };
  spinUntil([&] { return terms()["on"] == false && scenario().value("message", "") == "Busy"; });
  EXPECT_EQ(terms(), Json({{"plan", adUnits()[0].plans[0].id},
                           {"ecpm", 777},
                           {"caph", 9},
                           {"capd", adUnits()[0].plans[0].capDaily},
                           {"on", false}}));
  EXPECT_EQ(scenario(),
            Json({{"scenario", "error"}, {"code", 503}, {"message", "Busy"}, {"delay", 0}}));

  EXPECT_TRUE(browser.shows("#exchanges tr.line", 5));

  browser.click("#reset");
  EXPECT_TRUE(browser.shows("#exchanges tr.line", 0) && browser.shows("#bids tr", 1));
  EXPECT_TRUE(server.state().users.empty());

  EXPECT_EQ(browser.errors(), Json::array());
  browser.open(server.origin() + "/docs");
  ASSERT_TRUE(browser.shows("section", 9));
  EXPECT_THAT(browser.text("main"), HasSubstr("data.plans[].ecpm\tinteger from 0\trequired"));
  EXPECT_EQ(browser.errors(), Json::array());
}

}  // namespace
}  // namespace kva::sandbox
