#include <Kelvara/user/AnalyticsManager.h>

#include <tuple>
#include <utility>

#include <Kelvara/api/RequestManager.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/StringExtensions.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/user/CurrentUser.h>
#include <Kelvara/user/PrivacyManager.h>

namespace kva {
namespace {

using Keys = SDKHelper::UserDefaultKeys;

constexpr double kSecondsBetweenAttempts = 0.05;
/// After this, the other process has exceeded the time limit of a request, and this one registers.
constexpr int kAttempts = static_cast<int>(70 / kSecondsBetweenAttempts);

std::int64_t deviceTime() {
  return millisecondsSince1970(Runtime::current().platform().clock->now());
}

/// Whether the differences of two clocks are less than a second apart.
bool areClose(std::int64_t one, std::int64_t other) {
  std::int64_t apart = 0;
  return !__builtin_sub_overflow(one, other, &apart) && -1000 < apart && apart < 1000;
}

}  // namespace

AnalyticsManager& AnalyticsManager::shared() { return Runtime::current().get<AnalyticsManager>(); }

AnalyticsManager::AnalyticsManager()
    : defaultUser_(currentUser()),
      state_(State{.userId = userDefaults().get<std::string>(Keys::userId),
                   .registrations = {},
                   .nextAttempt = {},
                   .storedDeltaTime = userDefaults().get<std::int64_t>(Keys::deltaTime)}) {
  state_.with([](State& state) { state.deltaTime = state.storedDeltaTime.value_or(0); });
}

AnalyticsManager::~AnalyticsManager() {
  state_.with([](State& state) {
    if (state.deltaTime != state.storedDeltaTime.value_or(0)) storeDeltaTime(state);
  });
  if (state_.with([](State& state) { return state.registrations.empty(); })) return;
  // These still wait for another process. The session is invalidated, so it cancels this request on
  // its thread, and `invalidate` waits for that.
  auto& session = *Runtime::current().platform().urlSession;
  session.send(
      {.url = *URL::parse("about:blank"), .headers = {}, .body = {}},
      [this](const URLSession::Outcome& outcome) { completeRegistrations(outcome.error); });
  session.invalidate();
}

void AnalyticsManager::register_(Completion<std::optional<Error>> completion) {
  enum class Next { complete, wait, send };
  const auto next = state_.with([&](State& state) {
    if (state.userId) return Next::complete;
    state.registrations.push_back(std::move(completion));
    return state.registrations.size() == 1 ? Next::send : Next::wait;
  });
  if (next == Next::complete) return completion(std::nullopt);
  if (next == Next::send) attemptRegistration(1);
}

void AnalyticsManager::attemptRegistration(int attempt) {
  auto claim = userDefaults().claim(UserDefaults::Task::registration);
  if (adoptStoredUser()) return completeRegistrations(std::nullopt);
  if (claim || attempt > kAttempts) return sendRegistration(std::move(claim));
  Timer next = Runtime::current().platform().runLoop->schedule(
      kSecondsBetweenAttempts, Repeats::no, [this, attempt] { attemptRegistration(attempt + 1); });
  state_.with([&](State& state) { std::swap(state.nextAttempt, next); });
}

/// Owns the claim until the user is stored.
void AnalyticsManager::sendRegistration(UserDefaults::Claim claim) {
  RequestManager::register_(userToSend(), [this, claim = std::move(claim)](auto response) mutable {
    if (!response) {
      Log::e("Register error: " + response.error().localizedDescription());
      claim.reset();
      return completeRegistrations(response.error());
    }
    Log::d("Register success: " + response->userId);
    accept(response->userId);
    claim.reset();
    completeRegistrations(std::nullopt);
  });
}

void AnalyticsManager::completeRegistrations(const std::optional<Error>& error) {
  auto completions =
      state_.with([](State& state) { return std::exchange(state.registrations, {}); });
  for (auto& completion : completions) completion(error);
}

/// Uses the user that another process has registered, if there is one.
bool AnalyticsManager::adoptStoredUser() {
  return state_.with([](State& state) {
    state.userId = userDefaults().get<std::string>(Keys::userId);
    return state.userId.has_value();
  });
}

void AnalyticsManager::updateIfNeeded() {
  if (!isRegistered()) return;
  if (lastUploadedUser() == defaultUser_) return Log::d("No need to user update.");
  RequestManager::update(userToSend(), userId().value_or(""), [this](auto response) {
    if (!response) return Log::e("User update error: " + response.error().localizedDescription());
    Log::d("User update success: " + response->userId);
    accept(response->userId);
  });
}

/// The record with the advertising identifier that the user's privacy allows now.
User AnalyticsManager::userToSend() const {
  User user = defaultUser_;
  user.idfa = PrivacyManager::shared().idfaWithPrivacy().value_or("");
  return user;
}

void AnalyticsManager::accept(const std::string& userId) {
  setUserId(userId);
  save(defaultUser_);
}

void AnalyticsManager::logout() {
  state_.with([](State& state) {
    // Another process may have replaced the stored user. Its user must stay.
    std::ignore = userDefaults().edit([&](KeyedValues& stored) {
      if (stored.get<std::string>(Keys::userId) == state.userId) stored.remove(Keys::userId);
    });
    state.userId.reset();
  });
  register_([](std::optional<Error>) {});
}

void AnalyticsManager::setUserId(std::string userId) {
  // Stored under the lock, so that the stored id and the one in memory stay equal.
  state_.with([&](State& state) {
    userDefaults().set(Keys::userId, userId);
    state.userId = std::move(userId);
  });
}

void AnalyticsManager::setDeltaTime(std::int64_t serverTime) {
  std::int64_t deltaTime = 0;
  if (__builtin_sub_overflow(serverTime, deviceTime(), &deltaTime))
    fatal("the difference between the clocks of the server and the device exceeds 64 bits");
  state_.with([&](State& state) {
    state.deltaTime = deltaTime;
    if (!state.storedDeltaTime || !areClose(*state.storedDeltaTime, deltaTime))
      storeDeltaTime(state);
  });
}

void AnalyticsManager::storeDeltaTime(State& state) {
  userDefaults().set(Keys::deltaTime, state.deltaTime);
  state.storedDeltaTime = state.deltaTime;
}

std::int64_t AnalyticsManager::serverTime() const {
  const std::int64_t deltaTime = state_.with([](const State& state) { return state.deltaTime; });
  std::int64_t serverTime = 0;
  if (__builtin_add_overflow(deviceTime(), deltaTime, &serverTime))
    fatal("the server's time exceeds 64 bits");
  return serverTime;
}

bool AnalyticsManager::isRegistered() const {
  return state_.with([](const State& state) { return state.userId.has_value(); });
}

std::optional<std::string> AnalyticsManager::userId() const {
  return state_.with([](const State& state) { return state.userId; });
}

}  // namespace kva
