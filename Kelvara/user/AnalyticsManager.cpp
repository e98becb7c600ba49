#include <Kelvara/user/AnalyticsManager.h>

#include <tuple>
#include <utility>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>

namespace kva {
namespace {

using Keys = SDKHelper::UserDefaultKeys;

UserDefaults& userDefaults() { return *Runtime::current().platform().userDefaults; }

constexpr double kSecondsBetweenAttempts = 0.05;
/// A process that registers for longer than a request may take is not waited for.
constexpr int kAttempts = static_cast<int>(70 / kSecondsBetweenAttempts);

std::int64_t deviceTime() {
  return millisecondsSince1970(Runtime::current().platform().clock->now());
}

}  // namespace

AnalyticsManager& AnalyticsManager::shared() { return Runtime::current().get<AnalyticsManager>(); }

AnalyticsManager::AnalyticsManager()
    : state_(State{.userId = userDefaults().get<std::string>(Keys::userId),
                   .deltaTime = userDefaults().get<std::int64_t>(Keys::deltaTime).value_or(0),
                   .waiting = {},
                   .nextAttempt = {}}) {}

AnalyticsManager::~AnalyticsManager() {
  const auto nowhere = URL::parse("about:blank");
  auto& session = *Runtime::current().platform().urlSession;
  // The session is over and cancels every request.
  for (auto& waiting : state_.with([](State& state) { return std::exchange(state.waiting, {}); }))
    session.send({.url = *nowhere, .headers = {}, .body = {}},
                 [completion = std::move(waiting.completion)](
                     const URLSession::Outcome& outcome) mutable { completion(outcome.error); });
  session.invalidate();
}

void AnalyticsManager::register_(Completion<std::optional<Error>> completion) {
  registerOrWait({std::move(completion)});
}

void AnalyticsManager::registerOrWait(Waiting registration) {
  if (isRegistered()) return registration.completion(std::nullopt);
  auto claim = userDefaults().claim(UserDefaults::Task::registration);
  if (adoptStoredUser()) return registration.completion(std::nullopt);
  if (claim || ++registration.attempts > kAttempts)
    return sendRegistration(std::move(claim), std::move(registration.completion));
  auto retry = [this] {
    auto waiting = state_.with([](State& state) { return std::exchange(state.waiting, {}); });
    for (auto& one : waiting) registerOrWait(std::move(one));
  };
  state_.with([&](State& state) {
    if (state.waiting.empty())
      state.nextAttempt = Runtime::current().platform().runLoop->schedule(
          kSecondsBetweenAttempts, Repeats::no, std::move(retry));
    state.waiting.push_back(std::move(registration));
  });
}

/// Holds the claim until the user is stored.
void AnalyticsManager::sendRegistration(UserDefaults::Claim claim,
                                        Completion<std::optional<Error>> completion) {
  RequestManager::register_(
      defaultUser_,
      [this, claim = std::move(claim), completion = std::move(completion)](auto response) mutable {
        if (!response) {
          Log::e("Register error: " + response.error().localizedDescription());
          claim.reset();
          return completion(response.error());
        }
        Log::d("Register success: " + response->userId);
        accept(response->userId);
        claim.reset();
        completion(std::nullopt);
      });
}

/// Takes the user whom another process has registered, if there is one.
bool AnalyticsManager::adoptStoredUser() {
  return state_.with([](State& state) {
    state.userId = userDefaults().get<std::string>(Keys::userId);
    return state.userId.has_value();
  });
}

void AnalyticsManager::updateIfNeeded() {
  if (!isRegistered()) return;
  if (User::lastUploaded() == defaultUser_) return Log::d("No need to user update.");
  RequestManager::update(defaultUser_, userId().value_or(""), [this](auto response) {
    if (!response) return Log::e("User update error: " + response.error().localizedDescription());
    Log::d("User update success: " + response->userId);
    accept(response->userId);
  });
}

void AnalyticsManager::accept(const std::string& userId) {
  setUserId(userId);
  defaultUser_.save();
}

void AnalyticsManager::logout() {
  state_.with([](State& state) {
    // Another process may have replaced the user already; then there is nothing to forget.
    std::ignore = userDefaults().edit([&](KeyedValues& stored) {
      if (stored.get<std::string>(Keys::userId) == state.userId) stored.remove(Keys::userId);
    });
    state.userId.reset();
  });
  register_([](std::optional<Error>) {});
}

void AnalyticsManager::setUserId(std::string userId) {
  // Stored under the guard, so that what is kept is what was set last.
  state_.with([&](State& state) {
    userDefaults().set(Keys::userId, userId);
    state.userId = std::move(userId);
  });
}

void AnalyticsManager::setDeltaTime(std::int64_t serverTime) {
  std::int64_t deltaTime = 0;
  if (__builtin_sub_overflow(serverTime, deviceTime(), &deltaTime))
    fatal("the difference between the server's clock and the device's is beyond 64 bits");
  state_.with([&](State& state) {
    state.deltaTime = deltaTime;
    userDefaults().set(Keys::deltaTime, deltaTime);
  });
}

std::int64_t AnalyticsManager::serverTime() const {
  const std::int64_t deltaTime = state_.with([](const State& state) { return state.deltaTime; });
  std::int64_t serverTime = 0;
  if (__builtin_add_overflow(deviceTime(), deltaTime, &serverTime))
    fatal("the server's time is beyond 64 bits");
  return serverTime;
}

bool AnalyticsManager::isRegistered() const {
  return state_.with([](const State& state) { return state.userId.has_value(); });
}

std::optional<std::string> AnalyticsManager::userId() const {
  return state_.with([](const State& state) { return state.userId; });
}

}  // namespace kva
