// The console and the contract's page in a real browser, which WebDriver controls.
#include <gmock/gmock.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "sandbox/Client.h"
#include "support/MainLoop.h"

namespace kva::sandbox {
namespace {

using test::spinUntil;
using testing::HasSubstr;

/// A headless Chromium with one page. Needs the Debian packages chromium and chromium-driver.
class Browser {
 public:
  Browser() : driver_(popen("exec chromedriver --port=0 2>/dev/null", "r")) {
    int port = 0;
    for (char line[256]; port == 0 && fgets(line, sizeof line, driver_);)
      if (const char* found = std::strstr(line, "on port ")) port = std::atoi(found + 8);
    client_ = std::make_unique<httplib::Client>("127.0.0.1", port);
    client_->set_read_timeout(60);
    if (port == 0) return;
    Json arguments = {"--headless=new", "--disable-gpu", "--disable-dev-shm-usage"};
    if (geteuid() == 0) arguments.push_back("--no-sandbox");
    const Json options = {{"goog:chromeOptions", {{"args", arguments}}},
                          {"goog:loggingPrefs", {{"browser", "ALL"}}}};
    const Json session = command("", {{"capabilities", {{"alwaysMatch", options}}}});
    session_ = "/" + session.value("sessionId", "");
  }
  ~Browser() {
    if (exists()) client_->Delete("/session" + session_);
    client_->Get("/shutdown");
    pclose(driver_);
  }
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  bool exists() const { return session_.size() > 1; }
  void open(const std::string& url) { command("/url", {{"url", url}}); }
  /// Runs a function body in the page and returns its result.
  Json run(const std::string& body) {
    return command("/execute/sync", {{"script", body}, {"args", Json::array()}});
  }
  std::string text(const std::string& selector) {
    return run("return document.querySelector(`" + selector + "`).innerText");
  }
  /// Waits until the condition holds: the page polls the server.
  bool waitFor(const std::string& condition) {
    return spinUntil([&] { return run("return Boolean(" + condition + ")") == true; });
  }
  void click(const std::string& selector) { command(element(selector) + "/click", Json::object()); }
  void type(const std::string& selector, const std::string& keys) {
    command(element(selector) + "/clear", Json::object());
    command(element(selector) + "/value", {{"text", keys}});
  }
  /// Errors of the page's scripts since the last call.
  Json errors() { return command("/se/log", {{"type", "browser"}}); }

 private:
  Json command(const std::string& path, const Json& body) {
    const auto reply = client_->Post("/session" + session_ + path, body.dump(), "application/json");
    if (!reply) return nullptr;
    const Json value = Json::parse(reply->body, nullptr, false).value("value", Json());
    if (value.is_object() && value.contains("error")) ADD_FAILURE() << path << ": " << value;
    return value;
  }
  std::string element(const std::string& selector) {
    const Json found = command("/element", {{"using", "css selector"}, {"value", selector}});
    return "/element/" + (found.empty() ? "" : found.begin().value().get<std::string>());
  }

  std::FILE* driver_;
  std::unique_ptr<httplib::Client> client_;
  std::string session_;
};

using SandboxConsole = SandboxTest;

TEST_F(SandboxConsole, ShowsExchangesAndSwitchesPlansAndScenarios) {
  Browser browser;
  if (!browser.exists()) GTEST_SKIP() << "needs the Debian packages chromium and chromium-driver";
  browser.open(server.origin() + "/");

  // New exchanges appear while the page is open.
  const Json offer = data("/bid/init", bidRequest(uid));
  call("/bid/load", loadRequest(offer["bid"], offer["plans"][0]["plan"]));
  const Json shown = report(offer["bid"], {{"imp", true}, {"clck", true}});
  call("/bid/stats", statsRequest(uid, {shown}));
  call("/bid/init", bidRequest(kSomeUUID));
  ASSERT_TRUE(browser.waitFor("document.querySelectorAll('#exchanges tr.line').length === 5"));
  EXPECT_THAT(browser.text("#why"), HasSubstr("does not know the user " + kSomeUUID));
  ASSERT_TRUE(browser.waitFor("document.querySelectorAll('#chart rect').length === 2"));
  EXPECT_THAT(browser.text("#bids"), HasSubstr("interstitial, lamp-image\tloaded\t4.100\tshown, "
                                               "clicked"));
  browser.click("#exchanges tr.line");
  EXPECT_THAT(browser.text("#exchanges tr.bodies"), HasSubstr("\"msg\": \"uid: no such user\""));
  browser.click("#catalogue .unit button");
  EXPECT_TRUE(
      browser.waitFor("document.querySelector('#catalogue .unit button').innerText == "
                      "'Copied'"));
  EXPECT_THAT(browser.text("#catalogue .unit"), HasSubstr(std::string(kInterstitialAdUnit)));

  // Every switch changes the server.
  const std::string plan =
      "#catalogue [data-plan='" + std::string(adUnits()[0].plans[0].id) + "'] ";
  browser.type(plan + "input[name=ecpm]", "777\n");
  browser.type(plan + "input[name=caph]", "9\n");
  browser.click(plan + "input[name=on]");
  browser.click("#scenarios [data-endpoint='/bid/init'] option:nth-child(3)");
  browser.type("#scenarios tr:first-child input", "503:Busy\n");
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

  EXPECT_EQ(browser.run("return document.querySelectorAll('#exchanges tr.line').length"), 5);

  browser.click("#reset");
  EXPECT_TRUE(
      browser.waitFor("document.querySelectorAll('#exchanges tr.line').length === 0 && "
                      "document.querySelectorAll('#bids tr').length === 1"));
  EXPECT_TRUE(server.state().users.empty());

  browser.open(server.origin() + "/docs");
  ASSERT_TRUE(browser.waitFor("document.querySelectorAll('section').length === 9"));
  EXPECT_THAT(browser.text("main"), HasSubstr("data.plans[].ecpm\tinteger from 0\trequired"));
  EXPECT_EQ(browser.errors(), Json::array());
}

}  // namespace
}  // namespace kva::sandbox
