// Loads every page of pages/ in a real view with mraid.js and checks its text.
//
// A page writes lines with `log(text)`. The runner adds a line for each navigation of the page,
// which it blocks, and compares all lines with the page's <pre id="expected">. The runner evaluates
// each line of the page's <script type="text/bridge"> after the page has loaded, as the SDK would.
// The line "leave" loads another page instead.
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "gtk/WebPage.h"
#include "support/PageScript.h"

namespace kva::gtk::test {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

/// A script world without the page's globals, so that the page cannot replace any.
constexpr const char* kRunner = "runner";
const fs::path kPages = KELVARA_TEST_DATA "/mraid/pages";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A page with mraid.js. Records its lines and navigations.
class MraidPage : public WebPage, public testing::WithParamInterface<std::string> {
 protected:
  MraidPage() {
    add({.userScript =
             "window.log = text => webkit.messageHandlers.log.postMessage(String(text));" +
             readFile(KELVARA_RESOURCES "/mraid.js")});
    auto* manager = webkit_web_view_get_user_content_manager(page());
    webkit_user_content_manager_register_script_message_handler(manager, "log", nullptr);
    messages =
        connect<void(JSCValue*)>(manager, "script-message-received::log", [this](JSCValue* value) {
          g_autofree char* text = jsc_value_to_string(value);
          transcript.emplace_back(text);
        });
    listener->allows = false;
    listener->onQuestion = [this] {
      const std::string& address = listener->asked.back();
      if (!address.starts_with("about:")) transcript.push_back("navigation " + address);
    };
  }
  /// Runs a step, the body of an async function, and the timers that are due by its end.
  void run(const std::string& step) {
    EXPECT_EQ(kva::test::runInPage(page(), step), "null") << step;
    kva::test::runInPage(
        page(), "await new Promise(done => setTimeout(() => setTimeout(done, 30), 0))", kRunner);
  }
  /// The lines of an element's text.
  Lines linesOf(const std::string& selector) {
    const auto text = "(document.querySelector('" + selector + "')?.textContent ?? '')";
    return nlohmann::json::parse(kva::test::runInPage(
        page(), "return " + text + ".split('\\n').filter(line => line)", kRunner));
  }

  Lines transcript;
  SignalConnection messages;
};

TEST_P(MraidPage, ProducesItsText) {
  loadAndFinish(readFile(kPages / (GetParam() + ".html")));
  const auto expected = linesOf("#expected");
  ASSERT_FALSE(expected.empty()) << "the page expects nothing";
  for (const auto& step : linesOf("script[type=\"text/bridge\"]"))
    step == "leave" ? loadAndFinish("<p>Elsewhere</p>") : run(step);
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
