#pragma once

#include <glib-object.h>

#include <functional>
#include <utility>

#include <platform/linux/GlibSupport.h>

// Owners for objects and sources of GTK.
namespace kva::gtk {

/// Takes ownership of a new object, whose reference floats.
template <class T>
GObjectPtr<T> sink(T* object) {
  g_object_ref_sink(object);
  return GObjectPtr<T>(object);
}

/// A call that the main loop makes once. Destroying the handle cancels the call. Main thread only.
class PendingCall {
 public:
  using Call = std::move_only_function<void()>;

  PendingCall() = default;
  /// Calls `call` after at least this time, and never before `after` returns.
  static PendingCall after(guint milliseconds, Call call, int priority = G_PRIORITY_DEFAULT) {
    PendingCall pending;
    pending.source_ = g_timeout_source_new(milliseconds);
    g_source_set_priority(pending.source_, priority);
    g_source_set_callback(pending.source_, run, new Call(std::move(call)),
                          [](gpointer data) { delete static_cast<Call*>(data); });
    g_source_attach(pending.source_, nullptr);
    return pending;
  }
  PendingCall(PendingCall&& other) noexcept : source_(std::exchange(other.source_, nullptr)) {}
  PendingCall& operator=(PendingCall&& other) noexcept {
    std::swap(source_, other.source_);
    return *this;
  }
  ~PendingCall() { cancel(); }

  void cancel() {
    if (!source_) return;
    g_source_destroy(source_);
    g_source_unref(std::exchange(source_, nullptr));
  }

 private:
  static gboolean run(gpointer data) {
    (*static_cast<Call*>(data))();
    return G_SOURCE_REMOVE;
  }
  GSource* source_ = nullptr;
};

}  // namespace kva::gtk
