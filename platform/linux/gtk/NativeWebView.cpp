#include <platform/linux/gtk/NativeWebView.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include <Kelvara/platform/ErrorTable.h>

namespace kva::gtk {

namespace {

constexpr const char* kBlank = "about:blank";

// A page that starts this many navigations while no window has drawn a frame for this long floods
// the main loop. A change of the fragment in an endless loop is enough.
constexpr int kFlood = 1000;
constexpr gint64 kPatienceMicroseconds = 2'000'000;

// A page has one such period to handle the event that its ad closes, and at most this many if it is
// still busy or its requests have not ended.
constexpr guint kClosingMilliseconds = 300;
constexpr int kClosingPeriods = 7;

Error errorFrom(const GError& error) {
  return {g_quark_to_string(error.domain), error.code, error.message};
}

/// Whether a load failed because the SDK refused it or a newer load superseded it.
bool wasStopped(const GError& error) {
  return g_error_matches(&error, WEBKIT_POLICY_ERROR,
                         WEBKIT_POLICY_ERROR_FRAME_LOAD_INTERRUPTED_BY_POLICY_CHANGE) ||
         g_error_matches(&error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED);
}

NavigationAction actionFrom(WebKitNavigationAction* action, NavigationAction::TargetFrame target) {
  auto* request = webkit_navigation_action_get_request(action);
  NavigationAction made;
  made.target = target;
  made.isFollowedLink =
      webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED &&
      webkit_navigation_action_is_user_gesture(action);
  auto url = URL::parse(webkit_uri_request_get_uri(request));
  if (!url) return made;
  auto* method = webkit_uri_request_get_http_method(request);  // null for an unknown scheme
  made.request.emplace(URLRequest{*url, method ? method : "GET", {}, {}});
  return made;
}

bool isDownload(WebKitResponsePolicyDecision* decision) {
  if (!webkit_response_policy_decision_is_mime_type_supported(decision)) return true;
  auto* headers =
      webkit_uri_response_get_http_headers(webkit_response_policy_decision_get_response(decision));
  g_autofree char* disposition = nullptr;
  return headers && soup_message_headers_get_content_disposition(headers, &disposition, nullptr) &&
         g_ascii_strcasecmp(disposition, "attachment") == 0;
}

void evaluationEnded(GObject* page, GAsyncResult* result, gpointer data) {
  std::unique_ptr<WebView::Evaluated> evaluated(static_cast<WebView::Evaluated*>(data));
  g_autoptr(GError) error = nullptr;
  g_autoptr(JSCValue) value =
      webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(page), result, &error);
  if (!value) return (*evaluated)(failure(errorFrom(*error)));
  g_autofree char* json = jsc_value_to_json(value, 0);
  (*evaluated)(json ? json : "null");  // JSON cannot express "undefined"
}

/// Asks every `milliseconds` whether the page may end. Then terminates its web process, even if it
/// is busy, and releases the page. Never before this returns, because a WebKit callback about the
/// page may be running. At high priority, because a page that floods the main loop would starve an
/// idle call.
void endWhen(std::move_only_function<bool()> mayEnd, GObjectPtr<WebKitWebView> page,
             guint milliseconds) {
  using Ending = std::pair<std::move_only_function<bool()>, GObjectPtr<WebKitWebView>>;
  g_timeout_add_full(
      G_PRIORITY_HIGH, milliseconds,
      [](gpointer data) -> gboolean {
        auto& [mayEndNow, ending] = *static_cast<Ending*>(data);
        if (!mayEndNow()) return G_SOURCE_CONTINUE;
        webkit_web_view_terminate_web_process(ending.get());
        return G_SOURCE_REMOVE;
      },
      new Ending(std::move(mayEnd), std::move(page)),
      [](gpointer data) { delete static_cast<Ending*>(data); });
}

/// Blocks every navigation of the page and answers its dialogs at once.
void refuseQuestions(WebKitWebView* page, std::vector<SignalConnection>& answers) {
  answers.push_back(connect<gboolean(WebKitPolicyDecision*, WebKitPolicyDecisionType)>(
      page, "decide-policy", [](WebKitPolicyDecision* decision, WebKitPolicyDecisionType) {
        webkit_policy_decision_ignore(decision);
        return TRUE;
      }));
  answers.push_back(connect<gboolean(WebKitScriptDialog*)>(
      page, "script-dialog", [](WebKitScriptDialog*) { return TRUE; }));
}

}  // namespace

std::shared_ptr<NativeWebView> NativeWebView::create(GObjectPtr<WebKitWebView> page,
                                                     std::shared_ptr<ContentView> view, Size size,
                                                     const WebViewConfiguration& configuration) {
  std::shared_ptr<NativeWebView> made(new NativeWebView(std::move(page), std::move(view)));
  made->configure(configuration);
  made->followLoads();
  made->answerQuestions();
  made->refuseRequests();
  made->watchKeys();
  made->layOut(size);
  return made;
}

NativeWebView::NativeWebView(GObjectPtr<WebKitWebView> page, std::shared_ptr<ContentView> view)
    : page_(std::move(page)),
      view_(std::move(view)),
      requests_(std::make_unique<Requests>(page_.get())),
      isWarmingUp_(webkit_web_view_is_loading(page_.get())) {}

NativeWebView::~NativeWebView() {
  connections_.clear();
  view_->removeFromSuperview();
  setMuted(true);
  refuseQuestions(page(), refusals_);
  // The page answers this after all scripts before it.
  auto hasRunScripts = std::make_shared<bool>(false);
  NativeWebView::evaluateJavaScript("0", [hasRunScripts](auto&&) { *hasRunScripts = true; });
  endWhen(
      [hasRunScripts, periods = 0, refusals = std::move(refusals_),
       requests = std::move(requests_)]() mutable {
        return (*hasRunScripts && requests->haveEnded()) || ++periods == kClosingPeriods;
      },
      std::move(page_), kClosingMilliseconds);
}

// Gives the page its size before it is in a window.
void NativeWebView::layOut(Size size) {
  auto* widget = GTK_WIDGET(page());
  for (auto orientation : {GTK_ORIENTATION_HORIZONTAL, GTK_ORIENTATION_VERTICAL})
    gtk_widget_measure(widget, orientation, -1, nullptr, nullptr, nullptr, nullptr);
  gtk_widget_allocate(widget, static_cast<int>(std::lround(size.width)),
                      static_cast<int>(std::lround(size.height)), -1, nullptr);
}

// WebKit drops what it drew when its widget moves, and a page that does not change draws nothing by
// itself. A change of the background makes WebKit draw again; the page cannot observe it.
void NativeWebView::redraw() {
  if (startedURI_.empty()) return;  // there is no page yet
  GdkRGBA background;
  webkit_web_view_get_background_color(page(), &background);
  GdkRGBA other = background;
  other.alpha = 0.5F;
  for (auto* color : {&other, &background}) webkit_web_view_set_background_color(page(), color);
}

void NativeWebView::configure(const WebViewConfiguration& configuration) {
  auto* settings = webkit_web_view_get_settings(page());
  g_object_set(settings, "media-playback-allows-inline",
               gboolean{configuration.allowsInlineMediaPlayback},
               "media-playback-requires-user-gesture",
               gboolean{configuration.requiresUserActionForMediaPlayback}, nullptr);
  auto* script =
      webkit_user_script_new(configuration.userScript.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(webkit_web_view_get_user_content_manager(page()), script);
  webkit_user_script_unref(script);
  // Never transparent: what is behind an ad's page is black, and only an opaque page can fade
  // without it.
  const float shade = configuration.isOpaque ? 1 : 0;
  const GdkRGBA background{shade, shade, shade, 1};
  webkit_web_view_set_background_color(page(), &background);
  // WebKit's view contains a text view, which would take the focus behind the page's last element.
  for (auto* inner = gtk_widget_get_first_child(GTK_WIDGET(page())); inner;
       inner = gtk_widget_get_next_sibling(inner))
    gtk_widget_set_can_focus(inner, FALSE);
  if (!configuration.allowsZooming) forbidZooming();
  on<void()>("map", [this] { redraw(); });
  // `bounces` needs no code: a page in WebKitGTK never scrolls beyond its ends.
}

void NativeWebView::forbidZooming() {
  auto controllers =
      GObjectPtr<GListModel>(gtk_widget_observe_controllers(GTK_WIDGET(page_.get())));
  for (guint i = 0; i < g_list_model_get_n_items(controllers.get()); ++i) {
    auto controller = GObjectPtr<GtkEventController>(
        GTK_EVENT_CONTROLLER(g_list_model_get_item(controllers.get(), i)));
    if (GTK_IS_GESTURE_ZOOM(controller.get()))
      gtk_event_controller_set_propagation_phase(controller.get(), GTK_PHASE_NONE);
  }
}

void NativeWebView::followLoads() {
  on<void(WebKitLoadEvent)>("load-changed", [this](WebKitLoadEvent event) { loadChanged(event); });
  on<gboolean(WebKitLoadEvent, const char*, GError*)>(
      "load-failed",
      [this](WebKitLoadEvent, const char*, GError* error) { return loadFailed(*error); });
  on<void(WebKitWebProcessTerminationReason)>(
      "web-process-terminated", [this](WebKitWebProcessTerminationReason) { processTerminated(); });
}

void NativeWebView::answerQuestions() {
  using enum NavigationAction::TargetFrame;
  on<gboolean(WebKitPolicyDecision*, WebKitPolicyDecisionType)>(
      "decide-policy", [this](WebKitPolicyDecision* decision, WebKitPolicyDecisionType type) {
        if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
          isDownload(WEBKIT_RESPONSE_POLICY_DECISION(decision))
              ? webkit_policy_decision_ignore(decision)
              : webkit_policy_decision_use(decision);
          return TRUE;
        }
        const bool isNewWindow = type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION;
        decideNavigation(WEBKIT_NAVIGATION_POLICY_DECISION(decision),
                         isNewWindow ? std::optional(none) : std::nullopt)
            ? webkit_policy_decision_use(decision)
            : webkit_policy_decision_ignore(decision);
        return TRUE;
      });
  on<GtkWidget*(WebKitNavigationAction*)>("create", [this](WebKitNavigationAction* action) {
    auto self = shared_from_this();
    if (auto delegate = delegate_.lock()) delegate->webViewCreateWebView(actionFrom(action, none));
    return static_cast<GtkWidget*>(nullptr);
  });
  on<gboolean(WebKitScriptDialog*)>(
      "script-dialog", [this](WebKitScriptDialog* dialog) { return runDialog(dialog); });
}

void NativeWebView::refuseRequests() {
  refuse<gboolean(WebKitPermissionRequest*)>("permission-request",
                                             [](WebKitPermissionRequest* asked) {
                                               webkit_permission_request_deny(asked);
                                               return TRUE;
                                             });
  refuse<gboolean(WebKitPermissionStateQuery*)>(
      "query-permission-state", [](WebKitPermissionStateQuery* asked) {
        webkit_permission_state_query_finish(asked, WEBKIT_PERMISSION_STATE_DENIED);
        return TRUE;
      });
  refuse<gboolean(WebKitFileChooserRequest*)>("run-file-chooser",
                                              [](WebKitFileChooserRequest* asked) {
                                                webkit_file_chooser_request_cancel(asked);
                                                return TRUE;
                                              });
  refuse<gboolean(WebKitColorChooserRequest*)>("run-color-chooser",
                                               [](WebKitColorChooserRequest* asked) {
                                                 webkit_color_chooser_request_cancel(asked);
                                                 return TRUE;
                                               });
  refuse<gboolean(WebKitAuthenticationRequest*)>(
      "authenticate", [](WebKitAuthenticationRequest* asked) {
        webkit_authentication_request_authenticate(asked,
                                                   nullptr);  // continues without credentials
        return TRUE;
      });
  refuse<gboolean(WebKitPrintOperation*)>("print", [](WebKitPrintOperation*) { return TRUE; });
  refuse<gboolean(WebKitNotification*)>("show-notification",
                                        [](WebKitNotification*) { return TRUE; });
  refuse<gboolean(WebKitContextMenu*, WebKitHitTestResult*)>(
      "context-menu", [](WebKitContextMenu*, WebKitHitTestResult*) { return TRUE; });
}

void NativeWebView::watchKeys() {
  auto* keys = gtk_event_controller_key_new();
  gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
  connections_.push_back(connect<gboolean(guint, guint, GdkModifierType)>(
      keys, "key-pressed", [this](guint key, guint, GdkModifierType) {
        // These keys follow a link or press a button of the page.
        if (key == GDK_KEY_Return || key == GDK_KEY_KP_Enter || key == GDK_KEY_ISO_Enter ||
            key == GDK_KEY_space || key == GDK_KEY_KP_Space)
          view_->reportTouch();
        return GDK_EVENT_PROPAGATE;
      }));
  gtk_widget_add_controller(view_->widget(), keys);
}

void NativeWebView::loadHTML(const std::string& html, const std::optional<URL>& baseURL) {
  if (isWarmingUp_) {
    waitingLoad_ = [this, html, baseURL] { loadHTML(html, baseURL); };
    return;
  }
  load_ = Load::requested;
  ownNavigation_ = baseURL ? baseURL->absoluteString() : kBlank;
  // WebKit does not load an empty document.
  auto* bytes = html.empty() ? g_bytes_new(" ", 1) : g_bytes_new(html.data(), html.size());
  webkit_web_view_load_bytes(page(), bytes, "text/html", "UTF-8",
                             baseURL ? baseURL->absoluteString().c_str() : nullptr);
  g_bytes_unref(bytes);
}

void NativeWebView::load(const URLRequest& request) {
  if (isWarmingUp_) {
    waitingLoad_ = [this, request] { load(request); };
    return;
  }
  load_ = Load::requested;
  ownNavigation_.reset();
  auto made =
      GObjectPtr<WebKitURIRequest>(webkit_uri_request_new(request.url.absoluteString().c_str()));
  if (auto* headers = webkit_uri_request_get_http_headers(made.get()))
    for (const auto& [name, value] : request.headers)
      soup_message_headers_replace(headers, name.c_str(), value.c_str());
  webkit_web_view_load_request(page(), made.get());
}

void NativeWebView::evaluateJavaScript(const std::string& script, Evaluated evaluated) {
  auto* answer = evaluated ? new Evaluated(std::move(evaluated)) : nullptr;
  webkit_web_view_evaluate_javascript(page(), script.data(), static_cast<gssize>(script.size()),
                                      nullptr, nullptr, nullptr, answer ? evaluationEnded : nullptr,
                                      answer);
}

void NativeWebView::warmedUp() {
  isWarmingUp_ = false;
  if (auto load = std::exchange(waitingLoad_, nullptr)) load();
}

void NativeWebView::loadChanged(WebKitLoadEvent event) {
  auto self = shared_from_this();
  if (isWarmingUp_) {
    if (event == WEBKIT_LOAD_FINISHED) warmedUp();
    return;
  }
  auto* uri = webkit_web_view_get_uri(page());
  if (event == WEBKIT_LOAD_STARTED) {
    load_ = Load::running;
    startedURI_ = uri;
  }
  // A failed or superseded load ends with this event too.
  if (event != WEBKIT_LOAD_FINISHED || load_ != Load::running) return;
  load_ = Load::none;
  auto delegate = delegate_.lock();
  if (!delegate) return;
  // WebKit does not report that it blocks a port; it shows a blank page instead.
  if (startedURI_ != uri && std::string_view(uri) == kBlank)
    return delegate->webViewDidFailNavigation({g_quark_to_string(WEBKIT_POLICY_ERROR),
                                               WEBKIT_POLICY_ERROR_CANNOT_USE_RESTRICTED_PORT,
                                               "Not allowed to use restricted network port."});
  delegate->webViewDidFinishNavigation();
}

bool NativeWebView::loadFailed(const GError& error) {
  auto self = shared_from_this();
  if (isWarmingUp_) return true;
  if (wasStopped(error)) {
    if (load_ == Load::running) load_ = Load::none;
    return true;
  }
  load_ = Load::none;
  if (auto delegate = delegate_.lock()) delegate->webViewDidFailNavigation(errorFrom(error));
  return true;
}

void NativeWebView::processTerminated() {
  auto self = shared_from_this();
  if (isWarmingUp_) return warmedUp();
  const bool wasLoading = std::exchange(load_, Load::none) != Load::none;
  auto delegate = delegate_.lock();
  if (!delegate) return;
  const Error error =
      errorWithRemedy(g_quark_to_string(WEBKIT_NETWORK_ERROR), WEBKIT_NETWORK_ERROR_FAILED,
                      "The web content process terminated.");
  wasLoading ? delegate->webViewDidFailNavigation(error)
             : delegate->webViewProcessDidTerminate(error);
}

bool NativeWebView::decideNavigation(WebKitNavigationPolicyDecision* decision,
                                     std::optional<NavigationAction::TargetFrame> target) {
  auto self = shared_from_this();
  if (isWarmingUp_) return true;
  watchForFlood();
  auto* action = webkit_navigation_policy_decision_get_navigation_action(decision);
  auto* uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
  if (!target && ownNavigation_ && *ownNavigation_ == uri) {
    ownNavigation_.reset();
    return true;
  }
  using enum NavigationAction::TargetFrame;
  if (!target) target = webkit_navigation_action_get_frame_name(action) ? sub : main;
  auto delegate = delegate_.lock();
  if (!delegate || delegate->webViewDecidePolicy(actionFrom(action, *target))) return true;
  if (load_ == Load::requested) load_ = Load::none;
  return false;
}

void NativeWebView::watchForFlood() {
  const gint64 now = g_get_monotonic_time();
  if (!isDrawingAwaited_) {
    isDrawingAwaited_ = true;
    navigationsSinceDrawing_ = 0;
    awaitedSince_ = now;
    drawing_ = PendingCall::after(
        0, [this] { isDrawingAwaited_ = false; }, GDK_PRIORITY_REDRAW);
  }
  if (++navigationsSinceDrawing_ < kFlood || now - awaitedSince_ < kPatienceMicroseconds) return;
  isDrawingAwaited_ = false;
  endWhen([] { return true; }, GObjectPtr<WebKitWebView>(WEBKIT_WEB_VIEW(g_object_ref(page()))), 0);
}

bool NativeWebView::runDialog(WebKitScriptDialog* dialog) {
  auto self = shared_from_this();
  const auto type = webkit_script_dialog_get_dialog_type(dialog);
  if (type == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
    webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
    return true;
  }
  auto delegate = delegate_.lock();
  if (!delegate) return true;
  using enum ScriptDialog::Kind;
  ScriptDialog asked{.kind = type == WEBKIT_SCRIPT_DIALOG_ALERT     ? alert
                             : type == WEBKIT_SCRIPT_DIALOG_CONFIRM ? confirm
                                                                    : prompt,
                     .message = webkit_script_dialog_get_message(dialog),
                     .defaultText = {}};
  if (asked.kind == prompt)
    if (auto* text = webkit_script_dialog_prompt_get_default_text(dialog)) asked.defaultText = text;
  auto answer = delegate->webViewRunScriptDialog(asked);
  if (asked.kind == confirm) webkit_script_dialog_confirm_set_confirmed(dialog, answer.confirmed);
  if (asked.kind == prompt && answer.text)
    webkit_script_dialog_prompt_set_text(dialog, answer.text->c_str());
  return true;
}

}  // namespace kva::gtk
