#include "platform/linux/LazySession.h"

#include <utility>

#include "platform/linux/URLErrors.h"

namespace kva {

LazySession::LazySession(HostIdentity host, std::function<void(const std::string&)> logError)
    : host_(std::move(host)), logError_(std::move(logError)) {}

LazySession::~LazySession() {
  invalidate();
  if (auto* session = loaded_.load()) session->stop();
  auto thread = state_.with([](State& state) { return std::move(state.thread); });
  if (thread.joinable()) thread.join();
}

void LazySession::send(URLRequest request, Done done) {
  if (auto* session = loaded_.load()) return session->send(std::move(request), std::move(done));
  state_.with([&](State& state) {
    if (state.session) return state.session->send(std::move(request), std::move(done));
    if (state.refusal) return refuse(state, std::move(done));
    const bool isFirst = state.waiting.empty();
    state.waiting.push_back({std::move(request), std::move(done)});
    if (isFirst) state.thread = startThread("kva-session", [this] { run(); });
  });
}

void LazySession::run() {
  const auto make = loadNetwork();
  std::unique_ptr<NetworkSession> made(make ? (*make)(host_) : nullptr);
  if (!make) logError_(make.error().localizedDescription());
  auto* const session = made.get();
  state_.with([&](State& state) {
    if (!make) state.refusal = make.error();
    for (auto& [request, done] : std::exchange(state.waiting, {})) {
      if (session)
        session->send(std::move(request), std::move(done));
      else
        refuse(state, std::move(done));
    }
    state.session = std::move(made);
    loaded_ = session;
  });
  loading_.set_value();
  if (session) session->run();
}

void LazySession::refuse(State& state, Done done) {
  if (!state.queue) state.queue = std::make_unique<ThreadQueue>("kva-refusals");
  ++state.refused;
  state.queue->async([this, done = std::move(done), error = *state.refusal]() mutable {
    std::exchange(done, nullptr)({std::nullopt, std::move(error)});
    state_.with([](State& after) { --after.refused; });
  });
}

void LazySession::invalidate() {
  const bool isLoading = state_.with([](State& state) {
    if (state.waiting.empty()) state.refusal = urlError(URLError::cancelled);
    return !state.waiting.empty();
  });
  if (isLoading) isLoaded_.wait();
  if (auto* session = loaded_.load()) return session->invalidate();
  state_.with([](State& state) { state.refusal = urlError(URLError::cancelled); });
  // A refused request's `done` may send the next one.
  const auto refusing = [this] {
    return state_.with([](State& state) { return state.refused ? state.queue.get() : nullptr; });
  };
  while (auto* queue = refusing()) queue->sync([] {});
}

void LazySession::dropIdleConnections() {
  if (auto* session = loaded_.load()) session->dropIdleConnections();
}

bool LazySession::isSessionThread() const {
  auto* session = loaded_.load();
  return session && session->isSessionThread();
}

}  // namespace kva
