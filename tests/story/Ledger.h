#pragma once

#include <Kelvara/Error.h>
#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/URLSession.h>

#include <algorithm>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace kva::story {

/// The documented ways to answer one kind of call.
struct Promise {
  std::string name;
  std::set<std::int64_t> refusals{};  ///< codes that may come before the call returns
  std::set<std::int64_t> failures{};  ///< codes of the domain "Kelvara" that may come later
  bool mayAnswerAtOnce = false;       ///< success may come before the call returns
  /// True: success comes on the main thread, a failure there or on the network session's thread.
  /// False: every answer comes on the session's thread.
  bool succeedsOnMainThread = false;
};

/// Checks that every call is answered exactly once, on the promised thread, as promised. Any
/// thread.
class Ledger {
 public:
  using IsThisThread = std::function<bool()>;
  Ledger(IsThisThread isSessionThread, IsThisThread isMainThread)
      : isSessionThread_(std::move(isSessionThread)), isMainThread_(std::move(isMainThread)) {}

  /// One call. Open it just before the call; the completion or the delegate keeps it.
  class Call {
   public:
    Call(Ledger& ledger, const Promise& promise) : ledger_(ledger), promise_(promise) {}
    /// The call has returned to its caller.
    void returned() {
      ledger_.books_.with([this](Books&) { hasReturned_ = true; });
    }
    void answered(const std::optional<Error>& error) {
      ledger_.books_.with([&](Books& books) {
        const std::string answer =
            promise_.name + ": " +
            (error ? error->domain() + " " + std::to_string(error->code()) : "success");
        std::string wrong = brokenPromise(books.isEnding, error);
        if (++answers_ == 1) --books.pending;
        if (answers_ > 1) wrong = "answered again";
        ++books.outcomes[answer];
        if (!wrong.empty()) books.complaints.push_back(answer + ": " + wrong);
      });
    }

   private:
    /// Empty when the answer keeps all promises.
    std::string brokenPromise(bool isEnding, const std::optional<Error>& error) const {
      const bool isOwn = error && error->domain() == "Kelvara";
      const bool isTransport = error && error->domain() == kURLErrorDomain;
      if (!hasReturned_ && std::this_thread::get_id() == caller_) {
        if (!error) return promise_.mayAnswerAtOnce ? "" : "success before the call returned";
        const bool isRefusal = isOwn && promise_.refusals.contains(error->code());
        return isRefusal ? "" : "no refusal that is documented";
      }
      const bool isSessionThread = ledger_.isSessionThread_();
      const bool isRightThread = promise_.succeedsOnMainThread
                                     ? ledger_.isMainThread_() || (error && isSessionThread)
                                     : isSessionThread;
      if (!isRightThread) return "on a thread that was not promised";
      const auto is = [&](URLError code) {
        return isTransport && error->code() == static_cast<std::int64_t>(code);
      };
      if (!error || (isEnding && is(URLError::cancelled))) return "";
      const bool isDocumented = (isOwn && promise_.failures.contains(error->code())) ||
                                std::ranges::any_of(kTransport, is);
      return isDocumented ? "" : "no error that is documented";
    }

    Ledger& ledger_;
    const Promise& promise_;
    const std::thread::id caller_ = std::this_thread::get_id();
    bool hasReturned_ = false;
    int answers_ = 0;
  };
  std::shared_ptr<Call> open(const Promise& promise) {
    books_.with([](Books& books) { ++books.calls, ++books.pending; });
    return std::make_shared<Call>(*this, promise);
  }

  struct Books {
    std::size_t calls = 0, pending = 0;           ///< all, and those without an answer
    bool isEnding = false;                        ///< from now on `cancelled` is a valid answer
    std::map<std::string, std::size_t> outcomes;  ///< by call and answer
    std::vector<std::string> complaints;          ///< broken promises
  };
  Books books() const { return books_.get(); }
  bool isSettled() const {
    return books_.with([](const Books& books) { return books.pending == 0; });
  }
  void end() {
    books_.with([](Books& books) { books.isEnding = true; });
  }

 private:
  /// Transport errors of a request to a server that exists.
  static constexpr URLError kTransport[] = {
      URLError::timedOut, URLError::cannotConnectToHost, URLError::networkConnectionLost,
      URLError::badServerResponse, URLError::cannotDecodeContentData};

  const IsThisThread isSessionThread_, isMainThread_;
  Guarded<Books> books_;
};

}  // namespace kva::story
