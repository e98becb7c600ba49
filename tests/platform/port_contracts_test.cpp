// The contracts of the ports on both platforms. Those of views are in contract/.
#include <cerrno>

#include <gmock/gmock.h>

#include <platform/contract/Contract.h>

namespace kva::test {
namespace {

using testing::_, testing::Each, testing::ElementsAre, testing::IsEmpty, testing::MatchesRegex,
    testing::Not, testing::UnorderedElementsAre;

template <class Subject>
struct FactsContract : Contract<Subject> {};
TYPED_TEST_SUITE(FactsContract, Subjects, SubjectNames);

TYPED_TEST(FactsContract, HaveTheFormsThatServersExpect) {
  const Platform& ports = this->subject.ports;
  EXPECT_THAT(ports.locale->preferredLanguages(), Not(IsEmpty()));
  EXPECT_THAT(ports.locale->preferredLanguages(), Each(MatchesRegex("[a-z]{2,3}(-[A-Z]{2})?")));
  EXPECT_THAT(ports.locale->timeZoneAbbreviation().value_or(""), Not(IsEmpty()));
  EXPECT_THAT(ports.device->systemVersion(), Not(IsEmpty()));
  EXPECT_THAT(ports.device->machine(), Not(IsEmpty()));
  EXPECT_NE(ports.telephony->carrierName(), "") << "absent, not empty";
  EXPECT_EQ(ports.mainBundle->bundleIdentifier(), "org.example.host");
  EXPECT_EQ(ports.mainBundle->infoString("CFBundleShortVersionString"), "3.2.1");
  EXPECT_FALSE(ports.mainBundle->infoString("CFBundleName"));
}

template <class Subject>
struct ClockContract : Contract<Subject> {
  ClockContract() { setTimeZone("Europe/Berlin"); }
  ~ClockContract() override { setTimeZone("UTC"); }
  static void setTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static double utc(int year, int month, int day, int hour) {
    using namespace std::chrono;
    const sys_days date(std::chrono::year(year) / month / day);
    return duration<double>((date + hours(hour)).time_since_epoch()).count();
  }
};
TYPED_TEST_SUITE(ClockContract, Subjects, SubjectNames);

TYPED_TEST(ClockContract, AddsCalendarDaysAndClockHours) {
  if (!std::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin"))
    GTEST_SKIP() << "this machine has no time zone data";
  const Clock& clock = *this->subject.ports.clock;
  const auto& utc = this->utc;
  const struct {
    const char* what;
    double from;
    int days;
    double to;
  } cases[] = {
      {"into summer time", utc(2026, 3, 28, 11), 2, utc(2026, 3, 30, 10)},
      {"back out of it", utc(2026, 3, 30, 10), -2, utc(2026, 3, 28, 11)},
      {"into winter time", utc(2026, 10, 24, 10) + 0.625, 2, utc(2026, 10, 26, 11) + 0.625},
      {"a leap day and the year", utc(2027, 12, 30, 12), 61, utc(2028, 2, 29, 12)},
  };
  for (const auto& one : cases)
    EXPECT_DOUBLE_EQ(clock.addingDays(one.from, one.days), one.to) << one.what;
  const double before = utc(2026, 3, 29, 0);
  EXPECT_DOUBLE_EQ(clock.addingHours(before, 48), before + 48 * 3600);
  EXPECT_GT(clock.now(), utc(2025, 1, 1, 0));

  const double begin = clock.monotonicNow();
  this->subject.holdUp(0.05);
  EXPECT_GE(clock.monotonicNow() - begin, 0.049);
}

template <class Subject>
struct QueueContract : Contract<Subject> {
  /// The contract that the main queue and serial queues share.
  template <class Queue>
  void expectOrder(std::shared_ptr<Queue> queue) {
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    queue->async([this, &queue, held = std::move(held)] {
      this->note("outer begins");
      queue->async([this, &queue] {
        this->note("inner begins");
        queue->async([this] { this->note("innermost"); });
        this->note("inner ends");
      });
      this->note("outer ends");
    });
    ASSERT_TRUE(this->waitForNotes(5));
    EXPECT_THAT(this->notes.get(), ElementsAre("outer begins", "outer ends", "inner begins",
                                               "inner ends", "innermost"));
    EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));

    constexpr int kThreads = 4, kTasks = 50;
    int last[kThreads] = {};  // only tasks use it, one at a time
    std::atomic<bool> busy{false};
    std::atomic<int> ran{0};
    std::vector<std::jthread> posting;
    for (int& mine : last)
      posting.emplace_back([&] {
        for (int i = 1; i <= kTasks; ++i)
          queue->async([&, i] {
            EXPECT_FALSE(busy.exchange(true));
            EXPECT_EQ(std::exchange(mine, i), i - 1);
            busy = false;
            ++ran;
          });
      });
    posting.clear();
    EXPECT_TRUE(this->subject.spinUntil([&] { return ran == kThreads * kTasks; }));
  }
};
TYPED_TEST_SUITE(QueueContract, Subjects, SubjectNames);

TYPED_TEST(QueueContract, TheMainQueueRunsInOrderOnTheMainThreadUntilItIsDestroyed) {
  auto& queue = this->subject.ports.mainQueue;
  this->expectOrder(queue);
  bool ran = false;
  queue->async([&] { ran = this->subject.ports.mainQueue->isMainThread(); });
  EXPECT_FALSE(ran) << "never inline";
  EXPECT_TRUE(this->subject.spinUntil([&] { return ran; }));

  auto held = std::make_shared<int>();
  const std::weak_ptr<int> watched = held;
  queue->async([held = std::move(held)] { ADD_FAILURE() << "its queue was destroyed"; });
  this->subject.restart();
  EXPECT_TRUE(this->subject.spinUntil([&] { return watched.expired(); }));
}

TYPED_TEST(QueueContract, ASerialQueueRunsInOrderAndSyncRunsInlineOnTheQueueItself) {
  auto queue = this->subject.ports.reachability->makeSerialQueue("queue");
  this->expectOrder(queue);
  this->notes.set({});
  queue->async([&] {
    queue->async([this] { this->note("later"); });
    queue->sync([&] {
      queue->sync([this] { this->note("innermost"); });
      this->note("inline");
    });
    this->note("ends");
  });
  queue->sync([this] { this->note("sync"); });
  EXPECT_GE(this->notes.get().size(), 4U) << "sync returns after its task";
  ASSERT_TRUE(this->waitForNotes(5));
  EXPECT_THAT(this->notes.get(), ElementsAre("innermost", "inline", "ends", _, _));
}

template <class Subject>
struct RunLoopContract : Contract<Subject> {
  auto schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) {
    return this->subject.ports.runLoop->schedule(seconds, repeats, std::move(fire));
  }
  /// Runs the loop until a new timer of `seconds` fires.
  void pass(double seconds) {
    bool passed = false;
    auto fence = schedule(seconds, Repeats::no, [&] { passed = true; });
    ASSERT_TRUE(this->subject.spinUntil([&] { return passed; }));
  }
  auto count() {
    return [this] { ++fired; };
  }
  int fired = 0;
};
TYPED_TEST_SUITE(RunLoopContract, Subjects, SubjectNames);

TYPED_TEST(RunLoopContract, FiresInTheOrderOfDueTimes) {
  const auto note = [this](const char* what) { return [this, what] { this->note(what); }; };
  auto victim = this->schedule(0.05, Repeats::no, note("victim"));
  auto late = this->schedule(0.06, Repeats::no, note("late"));
  Timer next;
  auto early = this->schedule(0.02, Repeats::no, [&] {
    this->note("early");
    victim.invalidate();
    next = this->schedule(0.01, Repeats::no, note("next"));
  });
  EXPECT_THAT(this->notes.get(), IsEmpty());
  this->pass(0.12);
  EXPECT_THAT(this->notes.get(), UnorderedElementsAre("early", "next", "late"));
  EXPECT_EQ(this->notes.get().front(), "early");
}

TYPED_TEST(RunLoopContract, DestroyingAHandleCancelsAlsoInItsOwnCallback) {
  this->schedule(0.01, Repeats::no, this->count());
  auto replaced = this->schedule(0.01, Repeats::yes, this->count());
  replaced = Timer();
  auto elsewhere = this->schedule(0.01, Repeats::yes, this->count());
  std::thread([&] { elsewhere.invalidate(); }).join();
  this->pass(0.05);
  EXPECT_EQ(this->fired, 0);
  for (const auto repeats : {Repeats::no, Repeats::yes}) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = held;
    auto timer = std::make_shared<Timer>();
    *timer = this->schedule(0.01, repeats, [this, timer, held] {
      timer->invalidate();
      this->fired += *held;  // the captures live until the callback returns
    });
    held.reset();
    this->pass(0.05);
    EXPECT_EQ(std::exchange(this->fired, 0), 1);
    EXPECT_TRUE(watched.expired());
  }
}

TYPED_TEST(RunLoopContract, ARepeatingTimerSkipsMissedIntervals) {
  auto timer = this->schedule(0.05, Repeats::yes, this->count());
  ASSERT_TRUE(this->subject.spinUntil([&] { return this->fired == 3; }));
  this->subject.holdUp(0.5);
  this->pass(0.01);
  EXPECT_GE(this->fired, 4);
  EXPECT_LE(this->fired, 5) << "ten intervals were missed";
}

TYPED_TEST(RunLoopContract, TakesAnyInterval) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  std::vector<Timer> timers;
  for (const double never : {kInfinity, -kInfinity, std::nan(""), 1e18, 1e300})
    timers.push_back(this->schedule(never, Repeats::yes, [] { ADD_FAILURE(); }));
  for (const double shortest : {0.0, -5.0, 1e-9})
    timers.push_back(this->schedule(shortest, Repeats::yes, this->count()));
  EXPECT_EQ(this->fired, 0);
  this->pass(0.05);
  EXPECT_GE(this->fired, 3);
  EXPECT_LE(this->fired, 200) << "at most one each millisecond";
}

template <class Subject>
struct URLSessionContract : Contract<Subject> {
  ~URLSessionContract() override { this->subject.ports.urlSession->invalidate(); }
  /// Sends a request, notes the body or the error's code, then calls `then`.
  void send(const std::string& path, const std::string& body, std::function<void()> then = {}) {
    URLRequest request{.url = this->subject.url(path), .headers = {}, .body = {}};
    if (path == "/echo") {
      request.method = "POST";
      request.headers = {{"Content-Type", "application/json"}};
      request.body = toBytes(body);
    }
    if (path == "/never") request.timeout = timeout;
    this->subject.ports.urlSession->send(std::move(request), [=, this](const auto& outcome) {
      EXPECT_FALSE(busy.exchange(true)) << "two calls of done overlap";
      if (std::exchange(thread, std::this_thread::get_id()) != std::this_thread::get_id())
        ++threads;
      this->note(describe(outcome));
      busy = false;
      if (then) then();
    });
  }
  static std::string describe(const URLSession::Outcome& outcome) {
    if (!outcome.error) return outcome.data ? std::string(asText(*outcome.data)) : "(nothing)";
    EXPECT_FALSE(outcome.data);
    EXPECT_EQ(outcome.error->domain(), kURLErrorDomain);
    EXPECT_TRUE(outcome.error->localizedDescription().ends_with("."));
    return std::to_string(outcome.error->code());
  }
  double timeout = 0.2;
  std::atomic<bool> busy{false};
  std::thread::id thread;  // only `done` uses it
  int threads = 0;
};
TYPED_TEST_SUITE(URLSessionContract, Subjects, SubjectNames);

TYPED_TEST(URLSessionContract, AnswersWithDataOrAnError) {
  const std::pair<const char*, const char*> cases[] = {
      {"/ok", "ok"},        {"/empty", ""},     {"/error", "broken"}, {"/echo", R"({"a":"ü"})"},
      {"/refused", "1004"}, {"/never", "1001"},
  };
  for (const auto& [path, expected] : cases) {
    this->notes.set({});
    this->send(path, expected);
    ASSERT_TRUE(this->waitForNotes(1)) << path;
    EXPECT_EQ(this->notes.get().front(), expected) << path;
  }
}

TYPED_TEST(URLSessionContract, AnswersEachOfTwoHundredRequestsOnceOnOneThread) {
  std::multiset<std::string> expected;
  for (int i = 0; i < 200; ++i) expected.insert({std::to_string(i), "ok"});
  std::vector<std::jthread> senders;
  for (int first = 0; first < 200; first += 50)
    senders.emplace_back([this, first] {
      for (int i = first; i < first + 50; ++i)
        this->send("/echo", std::to_string(i), [this] { this->send("/ok", ""); });
    });
  senders.clear();
  ASSERT_TRUE(this->waitForNotes(400));
  // The next answer is not a second answer to an earlier request.
  this->send("/empty", "");
  expected.insert("");
  ASSERT_TRUE(this->waitForNotes(401));
  const auto answers = this->notes.get();
  EXPECT_EQ(std::multiset(answers.begin(), answers.end()), expected);
  EXPECT_EQ(this->threads, 1);
  EXPECT_EQ(this->thread != std::this_thread::get_id(), TypeParam::kSessionHasAThread);
}

TYPED_TEST(URLSessionContract, InvalidationCancelsPendingAndLaterRequests) {
  this->timeout = 60;
  for (int i = 0; i < 5; ++i) this->send("/never", "");
  this->send("/never", "", [this] { this->send("/ok", ""); });
  this->subject.ports.urlSession->invalidate();
  EXPECT_EQ(this->notes.get().size(), 7U) << "before invalidate returns";
  this->send("/ok", "");
  ASSERT_TRUE(this->waitForNotes(8));
  this->subject.ports.urlSession->invalidate();
  EXPECT_EQ(this->notes.get(), std::vector<std::string>(8, "999"));
}

template <class Subject>
struct ReachabilityContract : Contract<Subject> {};
TYPED_TEST_SUITE(ReachabilityContract, Subjects, SubjectNames);

TYPED_TEST(ReachabilityContract, NotifiesEachChangeOnTheQueueUntilItIsCancelled) {
  if (!TypeParam::canChangeTheNetwork()) return;
  constexpr auto kReachable = static_cast<std::uint32_t>(ReachabilityFlag::reachable);
  auto& service = *this->subject.ports.reachability;
  auto queue = service.makeSerialQueue("queue");
  auto reference = service.createWithAddress(0);
  ASSERT_TRUE(reference);
  const auto change = [&](bool reachable) {
    this->subject.setReachable(reachable);
    EXPECT_TRUE(this->subject.spinUntil(
        [&] { return reference->flags() == (reachable ? kReachable : 0); }));
    queue->sync([] {});
  };
  change(true);
  change(false);
  // The setters work in any order and repeatedly.
  EXPECT_TRUE(reference->setDispatchQueue(queue));
  EXPECT_TRUE(reference->setCallback([](std::uint32_t) { ADD_FAILURE() << "replaced"; }));
  EXPECT_TRUE(reference->setDispatchQueue(nullptr));
  EXPECT_TRUE(reference->setCallback([&](auto flags) { this->note(std::to_string(flags)); }));
  EXPECT_TRUE(reference->setDispatchQueue(queue));
  change(true);
  change(false);
  EXPECT_THAT(this->notes.get(), ElementsAre(std::to_string(kReachable), "0"));
  reference->setCallback(nullptr);
  change(true);
  EXPECT_EQ(this->notes.get().size(), 2U) << "cancelled";
  EXPECT_EQ(service.createWithName("host.example")->flags(), kReachable);
  EXPECT_FALSE(service.createWithName(""));
  EXPECT_EQ(service.lastError(), EINVAL);

  reference->setCallback([](std::uint32_t) { ADD_FAILURE() << "its reference was destroyed"; });
  reference = service.createWithAddress(0);
  change(false);
}

TEST(NotificationCenter, CallsMatchingObserversInOrderUntilTheyStop) {
  auto center = std::make_unique<NotificationCenter>();
  const int sender = 0, stranger = 0;
  std::vector<std::string> calls;
  const auto note = [&](const char* who) { return [&calls, who] { calls.push_back(who); }; };
  Observation victim, self;
  auto any = center->addObserver("name", nullptr, note("any"));
  auto one = center->addObserver("name", &sender, note("one"));
  auto other = center->addObserver("other name", nullptr, [] { ADD_FAILURE(); });
  auto held = std::make_shared<std::string>("self");
  self = center->addObserver("name", nullptr, [&, held] {
    self.stop();
    victim.stop();
    calls.push_back(*held);  // the captures live until the callback returns
  });
  victim = center->addObserver("name", nullptr, [] { ADD_FAILURE() << "stopped during the post"; });
  center->post("name", &sender);
  center->post("name", &stranger);
  EXPECT_THAT(calls, ElementsAre("any", "one", "self", "any"));
  center.reset();
  any.stop();  // after the centre was destroyed
}

}  // namespace
}  // namespace kva::test
