#include "Observer.h"

#include <Kelvara/base/Json.h>
#include <Kelvara/platform/WebView.h>

#include <nlohmann/json.hpp>
#include <string_view>

namespace kva::preview {

extern const char* const kProbe;

namespace {

constexpr const char* kHandler = "kelvaraPreview";
constexpr int kFirstFailure = 400;

bool isFile(std::string_view address) {
  return address.starts_with("http:") || address.starts_with("https:") ||
         address.starts_with("file:");
}

/// The bridge is there without its file, so a page may ask for it in vain.
bool isBridgeScript(std::string_view address) { return address.ends_with("/mraid.js"); }

std::string text(const Json& message, const char* key) {
  const auto found = message.find(key);
  return found != message.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace

Observer* Observer::current_ = nullptr;

Observer::Observer(Observations& observations) : observations_(observations) { current_ = this; }

Observer::~Observer() { current_ = nullptr; }

void Observer::evaluate(const std::string& script,
                        std::function<void(Result<std::string>)> evaluated) {
  if (const auto view = view_.lock()) view->evaluateJavaScript(script, std::move(evaluated));
}

// The probe is a script in the page. WebKit's own console setting prints unmarked lines to standard
// output, and only for scripts; a message handler delivers values, in order, also from frames and
// from a page that is closing.
void Observer::follow(WebKitWebView* page, std::weak_ptr<WebView> view) {
  page_.set(page);
  view_ = std::move(view);
  auto* manager = webkit_web_view_get_user_content_manager(page);
  auto* probe =
      webkit_user_script_new(kProbe, WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                             WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
  webkit_user_content_manager_add_script(manager, probe);
  webkit_user_script_unref(probe);
  connections_.push_back(connect<void(JSCValue*)>(
      manager, "script-message-received::kelvaraPreview", [this](JSCValue* value) {
        const GStringPtr message(jsc_value_to_string(value));
        receive(message.get());
      }));
  webkit_user_content_manager_register_script_message_handler(manager, kHandler, nullptr);
  connections_.push_back(connect<void(WebKitWebResource*, WebKitURIRequest*)>(
      page, "resource-load-started",
      [this](WebKitWebResource* resource, WebKitURIRequest*) { resourceStarted(resource); }));
}

void Observer::receive(const char* message) {
  const auto parsed = parseJson(message);
  if (!parsed || !parsed->is_object()) return;
  const std::string kind = text(*parsed, "kind"), what = text(*parsed, "text");
  if (kind == "state") {
    observations_.page = *parsed;
    if (observations_.changed) observations_.changed();
  } else if (kind == "console") {
    const std::string level = text(*parsed, "level");
    observations_.note(Source::console, level + ": " + what);
    if (level != "error") return;
    const bool isListener = what.starts_with("mraid: a listener of ");
    observations_.breach(isListener ? Rule::listeners : Rule::errors, what);
  } else if (kind == "error") {
    observations_.breach(Rule::errors, what);
  } else if (kind == "file") {
    observations_.breach(Rule::files, what + " could not be loaded");
  } else if (kind == "sound") {
    observations_.breach(Rule::sound, what + " plays before the ad is viewable");
  } else if (kind == "refused") {
    observations_.breach(Rule::commands, text(*parsed, "action") + ": " + text(*parsed, "message"));
  }
}

void Observer::resourceStarted(WebKitWebResource* resource) {
  const std::string address = webkit_web_resource_get_uri(resource);
  if (!isFile(address)) return;
  observations_.note(Source::network, "requests " + address);
  connections_.push_back(
      connect<void()>(resource, "finished", [this, resource] { resourceFinished(resource); }));
  connections_.push_back(connect<void(GError*)>(resource, "failed", [this, address](GError* error) {
    if (g_error_matches(error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED)) return;
    if (!isBridgeScript(address))
      observations_.breach(Rule::files, address + ": " + error->message);
  }));
}

void Observer::resourceFinished(WebKitWebResource* resource) {
  const std::string address = webkit_web_resource_get_uri(resource);
  auto* response = webkit_web_resource_get_response(resource);
  if (!response || isBridgeScript(address)) return;
  const auto status = static_cast<int>(webkit_uri_response_get_status_code(response));
  if (status >= kFirstFailure)
    return observations_.breach(Rule::files, address + ": status " + std::to_string(status));
  const auto length = static_cast<std::int64_t>(webkit_uri_response_get_content_length(response));
  if (length > 0) return observations_.addSize(address, length);
  // The server has not announced a length.
  webkit_web_resource_get_data(
      resource, nullptr, runAsync,
      asyncData(
          [this, address, alive = std::weak_ptr(alive_)](GObject* source, GAsyncResult* result) {
            gsize size = 0;
            const GStringPtr data(reinterpret_cast<char*>(webkit_web_resource_get_data_finish(
                WEBKIT_WEB_RESOURCE(source), result, &size, nullptr)));
            if (data && alive.lock())
              observations_.addSize(address, static_cast<std::int64_t>(size));
          }));
}

}  // namespace kva::preview
