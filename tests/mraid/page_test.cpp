// Every page of pages/ in a real WebKit view with mraid.js, against the text it must produce.
//
// A page tells what it sees with `log(text)`. The runner adds a line for each navigation that the
// page asks for, which it refuses, and compares the lines with the page's <pre id="expected">
// as it stands when the page has loaded.
// Each line of the page's <script type="text/bridge"> is a script that the runner evaluates after
// the page has loaded, as the SDK would; the line "leave" takes the page away instead.
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kLogScript =
    "window.log = text => webkit.messageHandlers.log.postMessage(String(text));";
constexpr int kLimitSeconds = 30;
/// A world of scripts that sees none of the page's globals, so nothing that the page has replaced.
constexpr const char* kRunner = "runner";
const fs::path kPages = KELVARA_TEST_DATA "/mraid/pages";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// A window with a web view that has mraid.js, and what the page in it said and asked for.
class MraidPage : public testing::TestWithParam<std::string> {
 protected:
  MraidPage() {
    gtk_init();
    window_ = GTK_WINDOW(gtk_window_new());
    WebKitUserContentManager* manager = webkit_user_content_manager_new();
    const std::string mraid = readFile(KELVARA_RESOURCES "/mraid.js");
    for (const char* source : {kLogScript, mraid.c_str()}) {
      WebKitUserScript* script =
          webkit_user_script_new(source, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                 WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
      webkit_user_content_manager_add_script(manager, script);
      webkit_user_script_unref(script);
    }
    webkit_user_content_manager_register_script_message_handler(manager, "log", nullptr);
    g_signal_connect(manager, "script-message-received::log", G_CALLBACK(onMessage), this);
    view_ = WEBKIT_WEB_VIEW(
        g_object_new(WEBKIT_TYPE_WEB_VIEW, "user-content-manager", manager, nullptr));
    g_object_unref(manager);
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
    EXPECT_TRUE(waitUntil([&] { return isLoaded_; })) << "the page did not load";
  }

  /// Runs `script`, the body of an async function, in a world (null: the page's own), and waits for
  /// the lines that it returns.
  std::vector<std::string> evaluate(const std::string& script, const char* world) {
    GAsyncResult* result = nullptr;
    webkit_web_view_call_async_javascript_function(
        view_, script.c_str(), -1, nullptr, world, nullptr, nullptr,
        [](GObject*, GAsyncResult* done, gpointer data) {
          *static_cast<GAsyncResult**>(data) = G_ASYNC_RESULT(g_object_ref(done));
        },
        &result);
    if (!waitUntil([&] { return result != nullptr; })) g_error("no answer to: %s", script.c_str());
    g_autoptr(GAsyncResult) done = result;
    g_autoptr(GError) error = nullptr;
    g_autoptr(JSCValue) value =
        webkit_web_view_call_async_javascript_function_finish(view_, done, &error);
    EXPECT_TRUE(value) << error->message << " in: " << script;
    g_autofree char* text = value ? jsc_value_to_string(value) : nullptr;
    std::istringstream in(text ? text : "");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) lines.push_back(line);
    return lines;
  }

  /// Runs the main loop until `done`, for `kLimitSeconds` at most.
  static bool waitUntil(const std::function<bool()>& done) {
    const gint64 limit = g_get_monotonic_time() + kLimitSeconds * G_USEC_PER_SEC;
    const auto wake = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
    const guint timer = g_timeout_add(50, wake, nullptr);
    while (!done() && g_get_monotonic_time() < limit) g_main_context_iteration(nullptr, TRUE);
    g_source_remove(timer);
    return done();
  }

  std::vector<std::string> transcript;

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
    auto* action = webkit_navigation_policy_decision_get_navigation_action(
        WEBKIT_NAVIGATION_POLICY_DECISION(decision));
    const std::string uri =
        webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
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
  waitUntil([&] { return transcript.size() >= expected.size(); });
  // Lets every timer that is due in the page run, then everything that it sent arrive.
  evaluate("await new Promise(done => setTimeout(() => setTimeout(done, 30), 0))", kRunner);
  EXPECT_EQ(transcript, expected);
}

std::vector<std::string> pages() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kPages)) names.push_back(entry.path().stem());
  return names;
}

std::string nameOf(const testing::TestParamInfo<std::string>& page) {
  std::string name = page.param;
  std::ranges::replace(name, '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Pages, MraidPage, testing::ValuesIn(pages()), nameOf);

}  // namespace
