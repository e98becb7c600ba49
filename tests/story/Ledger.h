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
  /// Each function returns whether the calling thread is the one in its name.
  explicit Ledger(std::function<bool()> isSessionThread, std::function<bool()> isMainThread = {});

  /// One call. Open it just before the call; the completion or the delegate keeps it.
  class Call {
   public:
    void returned();  ///< the call has returned to its caller
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
  std::string verdict(const Call& call, bool isEnding, const std::optional<Error>& error) const;

  const std::function<bool()> isSessionThread_, isMainThread_;
  Guarded<Books> books_;
};

}  // namespace kva::story
