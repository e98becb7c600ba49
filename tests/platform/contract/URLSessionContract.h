#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Kelvara/core/Guarded.h>
#include <Kelvara/platform/URLSession.h>

namespace kva::test {

/// `Subject` has
///   URLSession& session();
///   URL url(const std::string& path);  // "/ok" answers "ok", "/echo" the body it is sent,
///   "/empty"
///                                      // an empty body, "/error" status 500 with "broken",
///                                      // "/never" nothing; "/refused" is a port that no one hears
///   bool spinUntil(const std::function<bool()>&);  // false after a generous limit
///   static constexpr bool kOwnThread;  // false: `done` runs inside spinUntil
/// and is destroyed after its session was invalidated.
template <class Subject>
class URLSessionContract : public testing::Test {
 protected:
  struct Heard {
    URLSession::Outcome outcome;
    std::thread::id thread;
  };

  URLRequest request(const std::string& path) {
    return {.url = subject.url(path), .method = "GET", .headers = {}, .body = {}};
  }

  /// Sends, and notes whatever `done` gets.
  void send(URLRequest request) {
    subject.session().send(std::move(request), [this](URLSession::Outcome outcome) {
      EXPECT_FALSE(busy.exchange(true)) << "two calls of done at a time";
      heard.with([&](auto& all) { all.push_back({outcome, std::this_thread::get_id()}); });
      busy = false;
    });
  }

  bool waitFor(std::size_t count) {
    return subject.spinUntil([&] { return countHeard() >= count; });
  }
  std::size_t countHeard() const {
    return heard.with([](const auto& all) { return all.size(); });
  }
  static std::string text(const URLSession::Outcome& outcome) {
    return outcome.data ? std::string(asText(*outcome.data)) : "(no data)";
  }
  static void expectError(const URLSession::Outcome& outcome, URLError code) {
    EXPECT_FALSE(outcome.data);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain(), kURLErrorDomain);
    EXPECT_EQ(outcome.error->code(), static_cast<std::int64_t>(code));
    EXPECT_FALSE(outcome.error->localizedDescription().empty());
  }

  Guarded<std::vector<Heard>> heard;
  std::atomic<bool> busy{false};
  Subject subject;  // goes first: its session calls into the rest
};
TYPED_TEST_SUITE_P(URLSessionContract);

TYPED_TEST_P(URLSessionContract, AnswersWithDataOrAnError) {
  for (const auto& [path, body] : {std::pair{"/ok", "ok"}, {"/empty", ""}, {"/error", "broken"}}) {
    this->heard.set({});
    this->send(this->request(path));
    ASSERT_TRUE(this->waitFor(1)) << path;
    const auto outcome = this->heard.get().front().outcome;
    EXPECT_FALSE(outcome.error) << path;
    EXPECT_EQ(this->text(outcome), body) << path;
  }
  this->heard.set({});
  this->send(this->request("/refused"));
  ASSERT_TRUE(this->waitFor(1));
  this->expectError(this->heard.get().front().outcome, URLError::cannotConnectToHost);
}

TYPED_TEST_P(URLSessionContract, SendsMethodAndBody) {
  auto post = this->request("/echo");
  post.method = "POST";
  post.headers = {{"Content-Type", "application/json"}};
  post.body = toBytes(R"({"a":"ü"})");
  this->send(std::move(post));
  ASSERT_TRUE(this->waitFor(1));
  EXPECT_EQ(this->text(this->heard.get().front().outcome), R"({"a":"ü"})");
}

TYPED_TEST_P(URLSessionContract, TimesOutOnce) {
  auto slow = this->request("/never");
  slow.timeout = 0.2;
  this->send(std::move(slow));
  ASSERT_TRUE(this->waitFor(1));
  this->expectError(this->heard.get().front().outcome, URLError::timedOut);
}

TYPED_TEST_P(URLSessionContract, CallsEachDoneOnceOnOneThread) {
  constexpr std::size_t kRequests = 50;
  for (std::size_t i = 0; i < kRequests; ++i)
    this->send(this->request(i % 5 == 0 ? "/refused" : "/ok"));
  ASSERT_TRUE(this->waitFor(kRequests));
  // One more shows that no earlier one was answered twice.
  this->send(this->request("/ok"));
  ASSERT_TRUE(this->waitFor(kRequests + 1));
  const auto all = this->heard.get();
  EXPECT_EQ(all.size(), kRequests + 1);
  for (const auto& one : all) EXPECT_EQ(one.thread, all.front().thread);
  EXPECT_EQ(all.front().thread != std::this_thread::get_id(), TypeParam::kOwnThread);
}

TYPED_TEST_P(URLSessionContract, SendsFromWithinDoneAndFromManyThreads) {
  std::atomic<int> chained{0};
  std::function<void()> next = [&] {
    this->subject.session().send(this->request("/ok"), [&](URLSession::Outcome outcome) {
      EXPECT_EQ(this->text(outcome), "ok");
      if (++chained < 3) next();
    });
  };
  next();
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([this] {
        for (int round = 0; round < 5; ++round) this->send(this->request("/ok"));
      });
  }
  EXPECT_TRUE(this->waitFor(20));
  EXPECT_TRUE(this->subject.spinUntil([&] { return chained == 3; }));
}

TYPED_TEST_P(URLSessionContract, InvalidationCancelsWhatIsInFlightAndWhatComesLater) {
  constexpr std::size_t kInFlight = 5;
  for (std::size_t i = 0; i < kInFlight; ++i) this->send(this->request("/never"));
  std::atomic<bool> answeredAgain{false};
  this->subject.session().send(this->request("/never"), [&](URLSession::Outcome) {
    this->subject.session().send(this->request("/ok"), [&](URLSession::Outcome outcome) {
      this->expectError(outcome, URLError::cancelled);
      answeredAgain = true;
    });
  });
  this->subject.session().invalidate();
  EXPECT_TRUE(answeredAgain) << "sent while the session was ending";
  ASSERT_EQ(this->countHeard(), kInFlight) << "every done runs before invalidate returns";
  for (const auto& one : this->heard.get()) this->expectError(one.outcome, URLError::cancelled);

  this->send(this->request("/ok"));
  ASSERT_TRUE(this->waitFor(kInFlight + 1));
  this->expectError(this->heard.get().back().outcome, URLError::cancelled);
  this->subject.session().invalidate();
  EXPECT_EQ(this->countHeard(), kInFlight + 1);
}

REGISTER_TYPED_TEST_SUITE_P(URLSessionContract, AnswersWithDataOrAnError, SendsMethodAndBody,
                            TimesOutOnce, CallsEachDoneOnceOnOneThread,
                            SendsFromWithinDoneAndFromManyThreads,
                            InvalidationCancelsWhatIsInFlightAndWhatComesLater);

}  // namespace kva::test
