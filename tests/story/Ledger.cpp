#include "story/Ledger.h"

#include <Kelvara/platform/URLSession.h>

#include <utility>

namespace kva::story {
namespace {

/// What may become of a request on its way to a server that exists.
const std::set<std::int64_t> kTransport = {
    static_cast<std::int64_t>(URLError::timedOut),
    static_cast<std::int64_t>(URLError::cannotConnectToHost),
    static_cast<std::int64_t>(URLError::networkConnectionLost),
    static_cast<std::int64_t>(URLError::badServerResponse),
    static_cast<std::int64_t>(URLError::cannotDecodeContentData)};

bool isCancelled(const Error& error) {
  return error.domain() == kURLErrorDomain &&
         error.code() == static_cast<std::int64_t>(URLError::cancelled);
}

std::string described(const std::optional<Error>& error) {
  return error ? error->domain() + " " + std::to_string(error->code()) : "success";
}

}  // namespace

Ledger::Ledger(std::function<bool()> isSessionThread, std::function<bool()> isMainThread)
    : isSessionThread_(std::move(isSessionThread)), isMainThread_(std::move(isMainThread)) {}

std::shared_ptr<Ledger::Call> Ledger::open(const Promise& promise) {
  auto call = std::make_shared<Call>();
  call->ledger = this;
  call->promise = &promise;
  call->caller = std::this_thread::get_id();
  books_.with([](Books& books) { ++books.calls, ++books.pending; });
  return call;
}

void Ledger::Call::returned() {
  ledger->books_.with([this](Books&) { hasReturned = true; });
}

void Ledger::Call::answered(const std::optional<Error>& error) {
  const bool isCaller = std::this_thread::get_id() == caller;
  ledger->books_.with([&](Books& books) {
    const std::string wrong =
        ledger->verdict(*this, isCaller && !hasReturned, books.isEnding, error);
    if (++answers == 1) --books.pending;
    ++books.outcomes[promise->name + ": " + described(error)];
    if (!wrong.empty() || answers > 1)
      books.complaints.push_back(promise->name + ", " + described(error) + ": " +
                                 (answers > 1 ? "answered again" : wrong));
  });
}

std::string Ledger::verdict(const Call& call, bool atOnce, bool isEnding,
                            const std::optional<Error>& error) const {
  const Promise& promise = *call.promise;
  if (atOnce) {
    if (!error) return promise.mayAnswerAtOnce ? "" : "success before the call returned";
    const bool isRefusal = error->domain() == "Kelvara" && promise.refusals.contains(error->code());
    return isRefusal ? "" : "no refusal that is documented";
  }
  const bool isRightThread = promise.succeedsOnMainThread
                                 ? isMainThread_() || (error.has_value() && isSessionThread_())
                                 : isSessionThread_();
  if (!isRightThread) return "on a thread that was not promised";
  if (!error || (isEnding && isCancelled(*error))) return "";
  const auto& documented = error->domain() == kURLErrorDomain ? kTransport : promise.failures;
  const bool isKnownDomain = error->domain() == kURLErrorDomain || error->domain() == "Kelvara";
  return isKnownDomain && documented.contains(error->code()) ? "" : "no error that is documented";
}

std::size_t Ledger::pending() const {
  return books_.with([](const Books& books) { return books.pending; });
}
std::size_t Ledger::calls() const {
  return books_.with([](const Books& books) { return books.calls; });
}
void Ledger::setEnding(bool isEnding) {
  books_.with([&](Books& books) { books.isEnding = isEnding; });
}
std::map<std::string, std::size_t> Ledger::outcomes() const {
  return books_.with([](const Books& books) { return books.outcomes; });
}
std::vector<std::string> Ledger::complaints() const {
  return books_.with([](const Books& books) { return books.complaints; });
}

}  // namespace kva::story
