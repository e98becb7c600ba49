// Loads every page of pages/ in a real WebKit view with mraid.js and checks its text.
//
// A page writes lines with `log(text)`. The runner adds a line for each navigation of the page,
// which it blocks, and compares all lines with the page's <pre id="expected">. The runner evaluates
// each line of the page's <script type="text/bridge"> after the page has loaded, as the SDK would.
// The line "leave" loads another page instead.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/MainLoop.h"

namespace {

namespace fs = std::filesystem;
using kva::test::spinUntil;
using Lines = std::vector<std::string>;

constexpr double kLimitSeconds = 30;
/// A script world without the page's globals, so that the page cannot replace any.
constexpr const char* kRunner = "runner";
const fs::path kPages = KELVARA_TEST_DATA "/mraid/pages";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A window with a web view that has mraid.js. Records the page's lines and navigations.
class MraidPage : public testing::TestWithParam<std::string> {
 protected:
  MraidPage() {
    gtk_init();
    window_ = GTK_WINDOW(gtk_window_new());
    g_autoptr(WebKitUserContentManager) manager = webkit_user_content_manager_new();
    const std::string source =
        "window.log = text => webkit.messageHandlers.log.postMessage(String(text));" +
        readFile(KELVARA_RESOURCES "/mraid.js");
    WebKitUserScript* script =
        webkit_user_script_new(source.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                               WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
    webkit_user_content_manager_add_script(manager, script);
    webkit_user_script_unref(script);
    webkit_user_content_manager_register_script_message_handler(manager, "log", nullptr);
    g_signal_connect(manager, "script-message-received::log", G_CALLBACK(onMessage), this);
    view_ = WEBKIT_WEB_VIEW(
        g_object_new(WEBKIT_TYPE_WEB_VIEW, "user-content-manager", manager, nullptr));
    g_signal_connect(view_, "load-changed", G_CALLBACK(onLoadChanged), this);
    g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
    gtk_window_set_child(window_, GTK_WIDGET(view_));
    gtk_window_present(window_);
  }
  ~MraidPage() override {
    g_signal_handlers_disconnect_by_data(view_, this);
    g_signal_handlers_disconnect_by_data(webkit_web_view_get_user_content_manager(view_), this);
    gtk_window_destroy(window_);
  }

  void load(const std::string& html) {
    isLoaded_ = false;
    webkit_web_view_load_html(view_, html.c_str(), nullptr);
    EXPECT_TRUE(spinUntil([&] { return isLoaded_; }, kLimitSeconds)) << "the page did not load";
  }

  /// Runs `script`, the body of an async function, in a world (null: the page's own). Returns the
  /// lines of its result.
  Lines evaluate(const std::string& script, const char* world) {
    g_autoptr(GAsyncResult) result = nullptr;
    webkit_web_view_call_async_javascript_function(
        view_, script.c_str(), -1, nullptr, world, nullptr, nullptr,
        [](GObject*, GAsyncResult* done, gpointer data) {
          *static_cast<GAsyncResult**>(data) = G_ASYNC_RESULT(g_object_ref(done));
        },
        &result);
    if (!spinUntil([&] { return result; }, kLimitSeconds))
      g_error("no result of: %s", script.c_str());
    g_autoptr(GError) error = nullptr;
    g_autoptr(JSCValue) value =
        webkit_web_view_call_async_javascript_function_finish(view_, result, &error);
    EXPECT_TRUE(value) << error->message << " in: " << script;
    g_autofree char* text = value ? jsc_value_to_string(value) : nullptr;
    std::istringstream in(text ? text : "");
    Lines lines;
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) lines.push_back(line);
    return lines;
  }

  Lines transcript;

 private:
  static void onMessage(WebKitUserContentManager*, JSCValue* value, MraidPage* page) {
    g_autofree char* text = jsc_value_to_string(value);
    page->transcript.emplace_back(text);
  }
  static void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, MraidPage* page) {
    if (event == WEBKIT_LOAD_FINISHED) page->isLoaded_ = true;
  }
  static gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, MraidPage* page) {
    if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return FALSE;
    const std::string uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(
        webkit_navigation_policy_decision_get_navigation_action(
            WEBKIT_NAVIGATION_POLICY_DECISION(decision))));
    if (uri.starts_with("about:")) return FALSE;
    page->transcript.push_back("navigation " + uri);
    webkit_policy_decision_ignore(decision);
    return TRUE;
  }

  GtkWindow* window_ = nullptr;
  WebKitWebView* view_ = nullptr;
  bool isLoaded_ = false;
};

TEST_P(MraidPage, ProducesItsText) {
  load(readFile(kPages / (GetParam() + ".html")));
  const auto textOf = [&](const std::string& selector) {
    return evaluate("return document.querySelector('" + selector + "')?.textContent ?? ''",
                    kRunner);
  };
  const auto expected = textOf("#expected");
  ASSERT_FALSE(expected.empty()) << "the page expects nothing";
  for (const auto& step : textOf("script[type=\"text/bridge\"]"))
    step == "leave" ? load("<p>Elsewhere</p>") : void(evaluate(step, nullptr));
  spinUntil([&] { return transcript.size() >= expected.size(); }, kLimitSeconds);
  // Wait for every timer that is due in the page, and for the lines that it sends.
  evaluate("await new Promise(done => setTimeout(() => setTimeout(done, 30), 0))", kRunner);
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
