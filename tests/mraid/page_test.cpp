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

constexpr const char* logScript =
    "window.log = text => webkit.messageHandlers.log.postMessage(String(text));";
constexpr int limitSeconds = 10;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

const fs::path pageFolder = KELVARA_TEST_DATA "/mraid/pages";

std::vector<std::string> pages() {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator(pageFolder))
    if (entry.path().extension() == ".html") found.push_back(entry.path().stem());
  std::ranges::sort(found);
  return found;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

/// The text between `opening` and the next `closing`; empty when there is none.
std::string between(const std::string& text, const std::string& opening,
                    const std::string& closing) {
  const auto begin = text.find(opening);
  if (begin == std::string::npos) return {};
  const auto start = begin + opening.size();
  return text.substr(start, text.find(closing, start) - start);
}

/// A window with a web view that has mraid.js, and what the page in it said and asked for.
class Page {
 public:
  Page();
  ~Page();
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  void load(const std::string& html);
  /// Runs `script`, the body of an async function, and waits for what it returns. In a world of
  /// its own, it sees none of the page's globals, so nothing that the page has replaced.
  std::string evaluate(const std::string& script, const char* world = nullptr);
  /// Lets every timer that is due in the page run, then everything that it sent arrive.
  void settle() {
    evaluate("await new Promise(done => setTimeout(() => setTimeout(done, 30), 0));", "runner");
  }
  /// Runs the main loop until `done`, for `limitSeconds` at most.
  bool waitUntil(const std::function<bool()>& done);

  std::vector<std::string> transcript;

 private:
  static void onMessage(WebKitUserContentManager*, JSCValue* value, Page* page);
  static void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, Page* page);
  static gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                                 WebKitPolicyDecisionType type, Page* page);

  WebKitWebView* view_ = nullptr;
  GtkWindow* window_ = nullptr;
  bool isLoaded_ = false;
};

void addScript(WebKitUserContentManager* manager, const std::string& source) {
  WebKitUserScript* script =
      webkit_user_script_new(source.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(manager, script);
  webkit_user_script_unref(script);
}

Page::Page() {
  WebKitUserContentManager* manager = webkit_user_content_manager_new();
  addScript(manager, logScript);
  addScript(manager, readFile(KELVARA_RESOURCES "/mraid.js"));
  webkit_user_content_manager_register_script_message_handler(manager, "log", nullptr);
  g_signal_connect(manager, "script-message-received::log", G_CALLBACK(onMessage), this);

  view_ =
      WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "user-content-manager", manager, nullptr));
  g_object_unref(manager);
  g_signal_connect(view_, "load-changed", G_CALLBACK(onLoadChanged), this);
  g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);

  window_ = GTK_WINDOW(gtk_window_new());
  gtk_window_set_default_size(window_, 320, 480);
  gtk_window_set_child(window_, GTK_WIDGET(view_));
  gtk_window_present(window_);
}

Page::~Page() {
  g_signal_handlers_disconnect_by_data(view_, this);
  g_signal_handlers_disconnect_by_data(webkit_web_view_get_user_content_manager(view_), this);
  bool gone = false;
  g_object_weak_ref(
      G_OBJECT(view_), [](gpointer flag, GObject*) { *static_cast<bool*>(flag) = true; }, &gone);
  gtk_window_destroy(window_);
  EXPECT_TRUE(waitUntil([&] { return gone; })) << "the web view outlives its window";
}

void Page::load(const std::string& html) {
  isLoaded_ = false;
  webkit_web_view_load_html(view_, html.c_str(), nullptr);
  ASSERT_TRUE(waitUntil([&] { return isLoaded_; })) << "the page did not load";
}

std::string Page::evaluate(const std::string& script, const char* world) {
  struct Outcome {
    bool done = false;
    std::string value;
    std::string error;
  } outcome;
  webkit_web_view_call_async_javascript_function(
      view_, script.c_str(), -1, nullptr, world, nullptr, nullptr,
      [](GObject* view, GAsyncResult* result, gpointer data) {
        auto& answer = *static_cast<Outcome*>(data);
        g_autoptr(GError) error = nullptr;
        g_autoptr(JSCValue) value = webkit_web_view_call_async_javascript_function_finish(
            WEBKIT_WEB_VIEW(view), result, &error);
        if (value) {
          g_autofree char* text = jsc_value_to_string(value);
          answer.value = text;
        } else {
          answer.error = error->message;
        }
        answer.done = true;
      },
      &outcome);
  EXPECT_TRUE(waitUntil([&] { return outcome.done; })) << "no answer to: " << script;
  EXPECT_EQ(outcome.error, "") << "in: " << script;
  return outcome.value;
}

bool Page::waitUntil(const std::function<bool()>& done) {
  bool isLate = false;
  const guint timer = g_timeout_add_seconds(
      limitSeconds,
      [](gpointer late) -> gboolean {
        *static_cast<bool*>(late) = true;
        return G_SOURCE_CONTINUE;
      },
      &isLate);
  while (!done() && !isLate) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
  return done();
}

void Page::onMessage(WebKitUserContentManager*, JSCValue* value, Page* page) {
  g_autofree char* text = jsc_value_to_string(value);
  page->transcript.emplace_back(text);
}

void Page::onLoadChanged(WebKitWebView*, WebKitLoadEvent event, Page* page) {
  if (event == WEBKIT_LOAD_FINISHED) page->isLoaded_ = true;
}

gboolean Page::onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                              WebKitPolicyDecisionType type, Page* page) {
  if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return FALSE;
  WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(
      WEBKIT_NAVIGATION_POLICY_DECISION(decision));
  const std::string uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
  if (uri.starts_with("about:")) return FALSE;
  const bool isNewWindow = type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION;
  page->transcript.push_back((isNewWindow ? "new window " : "navigation ") + uri);
  webkit_policy_decision_ignore(decision);
  return TRUE;
}

class MraidPage : public testing::TestWithParam<std::string> {};

TEST_P(MraidPage, ProducesItsText) {
  const std::string html = readFile(pageFolder / (GetParam() + ".html"));
  Page page;
  page.load(html);
  const auto expected =
      linesOf(page.evaluate("return document.getElementById('expected').textContent;"));
  ASSERT_FALSE(expected.empty()) << "the page expects nothing";
  for (const auto& step : linesOf(between(html, "<script type=\"text/bridge\">", "</script>"))) {
    if (step == "leave")
      page.load("<p>Elsewhere</p>");
    else
      page.evaluate(step);
    if (HasFailure()) return;
  }
  page.waitUntil([&] { return page.transcript.size() >= expected.size(); });
  page.settle();
  EXPECT_EQ(page.transcript, expected);
}

std::string nameOf(const testing::TestParamInfo<std::string>& page) {
  std::string name = page.param;
  std::ranges::replace(name, '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Pages, MraidPage, testing::ValuesIn(pages()), nameOf);

// gtk_init before the first test, in a process that has one display.
class Display : public testing::Environment {
  void SetUp() override { ASSERT_TRUE(gtk_init_check()) << "no display"; }
};
[[maybe_unused]] const auto* const display = testing::AddGlobalTestEnvironment(new Display);

}  // namespace
