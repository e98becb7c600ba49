#include "story/Ledger.h"

#include <Kelvara/platform/URLSession.h>

#include <utility>

namespace kva::story {
namespace {

/// Transport errors of a request to a server that exists.
const std::set<std::int64_t> kTransport = {
    static_cast<std::int64_t>(URLError::timedOut),
    static_cast<std::int64_t>(URLError::cannotConnectToHost),
    static_cast<std::int64_t>(URLError::networkConnectionLost),
    static_cast<std::int64_t>(URLError::badServerResponse),
    static_cast<std::int64_t>(URLError::cannotDecodeContentData)};

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
  ledger->books_.with([&](Books& books) {
    const std::string answer =
        promise->name + ": " +
        (error ? error->domain() + " " + std::to_string(error->code()) : "success");
    std::string wrong = ledger->verdict(*this, books.isEnding, error);
    if (++answers == 1) --books.pending;
    if (answers > 1) wrong = "answered again";
    ++books.outcomes[answer];
    if (!wrong.empty()) books.complaints.push_back(answer + ": " + wrong);
  });
}

/// Returns the promise that an answer breaks now; empty when it keeps all.
std::string Ledger::verdict(const Call& call, bool isEnding,
                            const std::optional<Error>& error) const {
  const Promise& promise = *call.promise;
  const bool isOwn = error && error->domain() == "Kelvara";
  const bool isTransport = error && error->domain() == kURLErrorDomain;
  if (!call.hasReturned && std::this_thread::get_id() == call.caller) {
    if (!error) return promise.mayAnswerAtOnce ? "" : "success before the call returned";
    const bool isRefusal = isOwn && promise.refusals.contains(error->code());
    return isRefusal ? "" : "no refusal that is documented";
  }
  const bool isRightThread = promise.succeedsOnMainThread
                                 ? isMainThread_() || (error && isSessionThread_())
                                 : isSessionThread_();
  if (!isRightThread) return "on a thread that was not promised";
  const bool isCancelled =
      isTransport && error->code() == static_cast<std::int64_t>(URLError::cancelled);
  if (!error || (isEnding && isCancelled)) return "";
  const bool isDocumented = (isOwn && promise.failures.contains(error->code())) ||
                            (isTransport && kTransport.contains(error->code()));
  return isDocumented ? "" : "no error that is documented";
}

}  // namespace kva::story
