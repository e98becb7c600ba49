#pragma once

#include <Kelvara/Error.h>
#include <Kelvara/base/Guarded.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kva::story {

/// What a call of the SDK promises about its answer.
struct Promise {
  std::string name;
  std::set<std::int64_t> refusals{};  ///< codes that may come before the call returns
  std::set<std::int64_t> failures{};  ///< codes of the SDK's own domain that may come later
  bool mayAnswerAtOnce = false;       ///< success may come before the call returns
  /// Success comes on the main thread, failures there or on the network session's; without it all
  /// comes on the session's.
  bool succeedsOnMainThread = false;
};

/// Watches that every call is answered exactly once, where and with what it promised. Any thread.
class Ledger {
 public:
  /// Each tells whether it is called on the thread that it names.
  explicit Ledger(std::function<bool()> isSessionThread, std::function<bool()> isMainThread = {});

  /// One call, from just before it is made. Whoever answers it holds on to it.
  class Call {
   public:
    /// The call has returned to its caller.
    void returned();
    void answered(const std::optional<Error>& error);

   private:
    friend class Ledger;
    Ledger* ledger = nullptr;
    const Promise* promise = nullptr;
    std::thread::id caller;
    bool hasReturned = false;
    int answers = 0;
  };
  std::shared_ptr<Call> open(const Promise& promise);

  struct Books {
    std::size_t calls = 0, pending = 0;           ///< all, and those that have not been answered
    bool isEnding = false;                        ///< what is cut off is answered as cancelled
    std::map<std::string, std::size_t> outcomes;  ///< by call and answer
    std::vector<std::string> complaints;          ///< what was not as promised
  };
  Books books() const { return books_.get(); }
  bool isSettled() const {
    return books_.with([](const Books& books) { return books.pending == 0; });
  }
  void end() {
    books_.with([](Books& books) { books.isEnding = true; });
  }

 private:
  std::string verdict(const Call& call, bool isEnding, const std::optional<Error>& error) const;

  const std::function<bool()> isSessionThread_, isMainThread_;
  Guarded<Books> books_;
};

}  // namespace kva::story
