#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <gio/gio.h>

namespace kva {

/// The deleter of a pointer that owns what a GLib call returned.
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

/// Runs when an asynchronous GIO operation ends. Pass `runAsync` as the operation's callback and
/// `asyncData(f)` as its user data: `f` runs once.
using AsyncDone = std::function<void(GObject* source, GAsyncResult* result)>;
inline gpointer asyncData(AsyncDone done) { return new AsyncDone(std::move(done)); }
inline void runAsync(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<AsyncDone> done(static_cast<AsyncDone*>(data));
  (*done)(source, result);
}

/// A pointer to a GObject that turns null when the object is destroyed. Thread-safe.
template <class T>
class WeakRef {
 public:
  WeakRef() { g_weak_ref_init(&ref_, nullptr); }
  explicit WeakRef(T* object) { g_weak_ref_init(&ref_, object); }
  ~WeakRef() { g_weak_ref_clear(&ref_); }
  WeakRef(const WeakRef&) = delete;
  WeakRef& operator=(const WeakRef&) = delete;

  void set(T* object) { g_weak_ref_set(&ref_, object); }
  GObjectPtr<T> get() const { return GObjectPtr<T>(static_cast<T*>(g_weak_ref_get(&ref_))); }

 private:
  mutable GWeakRef ref_;
};

/// A C++ function that is connected to a signal. Destroying the connection disconnects it. The
/// object may be destroyed before the connection.
class SignalConnection {
 public:
  SignalConnection() = default;
  SignalConnection(gpointer object, gulong handler)
      : state_(std::make_unique<State>(static_cast<GObject*>(object), handler)) {}

 private:
  struct State {
    State(GObject* instance, gulong id) : object(instance), handler(id) {}
    State(const State&) = delete;
    ~State() {
      if (auto alive = object.get()) g_clear_signal_handler(&handler, alive.get());
    }
    WeakRef<GObject> object;
    gulong handler;
  };
  std::unique_ptr<State> state_;
};

template <class Signature>
struct SignalHandler;
template <class Result, class... Args>
struct SignalHandler<Result(Args...)> {
  using Function = std::function<Result(Args...)>;
  static Result call(gpointer, Args... args, gpointer data) {
    return (*static_cast<Function*>(data))(args...);
  }
  static void destroy(gpointer data, GClosure*) { delete static_cast<Function*>(data); }
};

/// Connects `handler` to `signal` of `object`. `Signature` is the signal's own, without the
/// instance. The thread that emits the signal calls `handler`.
template <class Signature>
[[nodiscard]] SignalConnection connect(gpointer object, const char* signal,
                                       std::function<Signature> handler) {
  using Handler = SignalHandler<Signature>;
  return {object, g_signal_connect_data(object, signal, G_CALLBACK(Handler::call),
                                        new std::function<Signature>(std::move(handler)),
                                        Handler::destroy, GConnectFlags{})};
}

}  // namespace kva
