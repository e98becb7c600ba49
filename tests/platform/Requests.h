#pragma once

#include <future>
#include <string>

#include <gtest/gtest.h>

#include <platform/linux/LazySession.h>

namespace kva::test {

/// Sends requests, one after another.
struct Requests {
  static URLSession::Outcome answerTo(URLSession& session, URLRequest request) {
    std::promise<URLSession::Outcome> promise;
    session.send(std::move(request),
                 [&](URLSession::Outcome outcome) { promise.set_value(std::move(outcome)); });
    return promise.get_future().get();
  }
  static std::string textOf(URLSession& session, URLRequest request) {
    const auto outcome = answerTo(session, std::move(request));
    return outcome.error  ? outcome.error->localizedDescription()
           : outcome.data ? std::string(asText(*outcome.data))
                          : "(neither data nor error)";
  }
  std::string textOf(URLRequest request) { return textOf(session, std::move(request)); }
  URLError errorOf(URLRequest request) {
    const auto outcome = answerTo(session, std::move(request));
    EXPECT_FALSE(outcome.data);
    if (!outcome.error) return URLError::unknown;
    return static_cast<URLError>(outcome.error->code());
  }
  LazySession session{{}, nullptr};
};

}  // namespace kva::test
