#pragma once

#include <glib-object.h>

#include <functional>
#include <memory>
#include <utility>

#include <platform/linux/GlibSupport.h>

// More owners for what GLib counts and connects by hand.
namespace kva::gtk {

/// A pointer to a GObject that turns null when the object goes.
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

/// A C++ function connected to a signal; destroying it disconnects. The object may be destroyed
/// first.
class Subscription {
 public:
  Subscription() = default;
  Subscription(gpointer object, gulong handler)
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

/// Connects `handler` to `signal`; `Signature` is the signal's own, without the instance.
template <class Signature>
[[nodiscard]] Subscription connect(gpointer object, const char* signal,
                                   std::function<Signature> handler) {
  using Handler = SignalHandler<Signature>;
  return {object, g_signal_connect_data(object, signal, G_CALLBACK(Handler::call),
                                        new std::function<Signature>(std::move(handler)),
                                        Handler::destroy, GConnectFlags{})};
}

/// Owns an object that is new, and so floats.
template <class T>
GObjectPtr<T> sink(T* object) {
  g_object_ref_sink(object);
  return GObjectPtr<T>(object);
}

/// A call that the main loop will make once; destroying the handle cancels it.
class PendingCall {
 public:
  using Call = std::move_only_function<void()>;

  PendingCall() = default;
  /// Never before `after` returns.
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
