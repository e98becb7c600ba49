#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <gio/gio.h>

namespace kva {

/// Owns what a GLib call returned, and lets it go with the function that belongs to it.
template <auto release>
struct Release {
  template <class T>
  void operator()(T* owned) const {
    release(owned);
  }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, Release<g_object_unref>>;
using GVariantPtr = std::unique_ptr<GVariant, Release<g_variant_unref>>;
using GStringPtr = std::unique_ptr<char, Release<g_free>>;
using GDateTimePtr = std::unique_ptr<GDateTime, Release<g_date_time_unref>>;

/// What runs when an asynchronous GIO operation ends; hand `asyncData(f)` over as the user data of
/// `runAsync`, which runs `f` once.
using AsyncDone = std::function<void(GObject* source, GAsyncResult* result)>;
inline gpointer asyncData(AsyncDone done) { return new AsyncDone(std::move(done)); }
inline void runAsync(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<AsyncDone> done(static_cast<AsyncDone*>(data));
  (*done)(source, result);
}

/// A connected signal; the connection ends with this value. The object must outlive it.
class SignalConnection {
 public:
  SignalConnection() = default;
  SignalConnection(gpointer object, const char* signal, GCallback handler, gpointer data)
      : object_(object), id_(g_signal_connect(object, signal, handler, data)) {}
  SignalConnection(SignalConnection&& other) noexcept
      : object_(std::exchange(other.object_, nullptr)), id_(other.id_) {}
  SignalConnection& operator=(SignalConnection&& other) noexcept {
    std::swap(object_, other.object_);
    std::swap(id_, other.id_);
    return *this;
  }
  ~SignalConnection() {
    if (object_) g_signal_handler_disconnect(object_, id_);
  }

 private:
  gpointer object_ = nullptr;
  gulong id_ = 0;
};

}  // namespace kva
