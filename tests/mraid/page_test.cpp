// Loads every page of pages/ with mraid.js in a web view of the SDK and checks its text.
//
// A page writes lines with `log(text)`. The runner adds a line for each navigation of the page,
// which it blocks, and compares all lines with the page's <pre id="expected">. The runner evaluates
// each line of the page's <script type="text/bridge"> after the page has loaded, as the SDK would.
// The line "leave" loads another page instead.
#include <gtest/gtest.h>
#include <platform/linux/gtk/NativeWebView.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "gtk/Stage.h"

namespace kva::gtk::test {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const fs::path kPages = KELVARA_TEST_DATA "/mraid/pages";

/// Runs before mraid.js, so that a page cannot replace what it uses.
constexpr const char* kRunner =
    "{ const later = setTimeout;"
    "  window.log = text => webkit.messageHandlers.log.postMessage(String(text));"
    "  window.stepEnds = () => log('the step ends');"
    "  window.timersRun = () => new Promise(done => later(() => later(done, 30), 0)); }";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A page with mraid.js. Records its lines and navigations.
class MraidPage : public testing::TestWithParam<std::string> {
 protected:
  MraidPage() {
    auto* manager = webkit_web_view_get_user_content_manager(
        std::static_pointer_cast<NativeWebView>(webView)->page());
    webkit_user_content_manager_register_script_message_handler(manager, "log", nullptr);
    messages =
        connect<void(JSCValue*)>(manager, "script-message-received::log", [this](JSCValue* value) {
          const GStringPtr text(jsc_value_to_string(value));
          transcript.emplace_back(text.get());
        });
    recorder->allows = false;
    recorder->onQuestion = [this] {
      const std::string& address = recorder->asked.back();
      if (!address.starts_with("about:")) transcript.push_back("navigation " + address);
    };
    webView->setDelegate(recorder);
    stage.window()->view()->addSubview(webView->view(), Layout::edges(Layout::Area::plain));
  }

  void load(const std::string& html) {
    const int before = recorder->finished;
    webView->loadHTML(html, std::nullopt);
    EXPECT_TRUE(spinUntil([&] { return recorder->finished > before; })) << "the page did not load";
  }
  /// Runs `script`, the body of an async function, until it has returned and the timers that were
  /// due by then have run.
  void run(const std::string& script) {
    webView->evaluateJavaScript(
        "(async () => {" + script + "})().catch(log).then(timersRun).then(stepEnds)", nullptr);
    Lines::iterator end;
    EXPECT_TRUE(spinUntil([&] {
      end = std::ranges::find(transcript, "the step ends");
      return end != transcript.end();
    })) << script;
    if (end != transcript.end()) transcript.erase(end);
  }
  Lines linesOf(const std::string& selector) {
    const auto text = nlohmann::json::parse(
        stage.evaluate(*webView, "document.querySelector('" + selector + "')?.textContent ?? ''"));
    std::istringstream in(text.get<std::string>());
    Lines lines;
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) lines.push_back(line);
    return lines;
  }

  Stage stage;
  std::shared_ptr<WebView> webView = stage.application().makeWebView(
      {0, 0, 640, 480}, {.userScript = kRunner + readFile(KELVARA_RESOURCES "/mraid.js")});
  std::shared_ptr<PageRecorder> recorder = std::make_shared<PageRecorder>();
  SignalConnection messages;
  Lines transcript;
};

TEST_P(MraidPage, ProducesItsText) {
  load(readFile(kPages / (GetParam() + ".html")));
  const auto expected = linesOf("#expected");
  ASSERT_FALSE(expected.empty()) << "the page expects nothing";
  for (const auto& step : linesOf("script[type=\"text/bridge\"]"))
    step == "leave" ? load("<p>Elsewhere</p>") : run(step);
  spinUntil([&] { return transcript.size() >= expected.size(); });
  run("");  // a line too many would come by then
  EXPECT_EQ(transcript, expected);
}

Lines pages() {
  Lines names;
  for (const auto& entry : fs::directory_iterator(kPages)) names.push_back(entry.path().stem());
  return names;
}

INSTANTIATE_TEST_SUITE_P(Pages, MraidPage, testing::ValuesIn(pages()), [](const auto& page) {
  std::string name = page.param;
  std::ranges::replace(name, '-', '_');
  return name;
});

}  // namespace
}  // namespace kva::gtk::test
