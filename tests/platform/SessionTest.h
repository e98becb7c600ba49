#pragma once

#include <future>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <platform/linux/LazySession.h>
#include <platform/linux_support.h>

namespace kva::test {

/// Sends requests on `session`, or on another, and names what came of them.
struct SessionTest : testing::Test {
  using Outcome = URLSession::Outcome;

  static std::future<Outcome> send(URLSession& session, URLRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    session.send(std::move(request),
                 [promise](Outcome outcome) { promise->set_value(std::move(outcome)); });
    return promise->get_future();
  }
  static std::string textOf(URLSession& session, URLRequest request) {
    const auto outcome = send(session, std::move(request)).get();
    return outcome.error  ? outcome.error->localizedDescription()
           : outcome.data ? std::string(asText(*outcome.data))
                          : "(neither data nor error)";
  }
  std::string textOf(URLRequest request) { return textOf(session, std::move(request)); }
  static URLError errorOf(std::future<Outcome> future) {
    const auto outcome = future.get();
    EXPECT_FALSE(outcome.data);
    return outcome.error ? static_cast<URLError>(outcome.error->code()) : URLError::unknown;
  }
  URLError errorOf(URLRequest request) { return errorOf(send(session, std::move(request))); }

  LazySession session{{}, nullptr};
};

}  // namespace kva::test
