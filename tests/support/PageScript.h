#pragma once

#include <webkit/webkit.h>

#include <optional>

#include "support/MainLoop.h"

namespace kva::test {

/// Runs `script`, the body of an async function, in a world (null: the page's own). Returns its
/// value as JSON, or the error's message. "no answer" if the page is busy.
inline std::string runInPage(WebKitWebView* page, const std::string& script,
                             const char* world = nullptr) {
  // Shared, because a busy page may answer after this returns.
  using Answer = std::shared_ptr<std::optional<std::string>>;
  auto answer = std::make_shared<std::optional<std::string>>();
  webkit_web_view_call_async_javascript_function(
      page, script.data(), static_cast<gssize>(script.size()), nullptr, world, nullptr, nullptr,
      [](GObject* from, GAsyncResult* result, gpointer data) {
        std::unique_ptr<Answer> kept(static_cast<Answer*>(data));
        g_autoptr(GError) error = nullptr;
        g_autoptr(JSCValue) value = webkit_web_view_call_async_javascript_function_finish(
            WEBKIT_WEB_VIEW(from), result, &error);
        g_autofree char* json = value ? jsc_value_to_json(value, 0) : nullptr;
        **kept = json ? json : error ? error->message : "null";
      },
      new Answer(answer));
  return spinUntil([&] { return answer->has_value(); }) ? **answer : "no answer";
}

}  // namespace kva::test
