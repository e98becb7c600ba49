#include <platform/headless/Server.h>

#include <deque>
#include <utility>

#include <nlohmann/json.hpp>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/base/Guarded.h>

namespace kva::headless {
namespace {

constexpr std::string_view kAPI = "/api/v1";

std::map<std::string, std::string> splitQuery(std::string_view query) {
  std::map<std::string, std::string> parts;
  while (!query.empty()) {
    const auto piece = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), piece.size() + 1));
    const auto equals = piece.find('=');
    parts.emplace(piece.substr(0, equals),
                  equals == std::string_view::npos ? "" : piece.substr(equals + 1));
  }
  return parts;
}

SentRequest describe(const URLRequest& request, double time) {
  SentRequest sent{.url = request.url.absoluteString(),
                   .base = {},
                   .path = {},
                   .query = splitQuery(request.url.query().value_or("")),
                   .method = request.method,
                   .headers = request.headers,
                   .body = {},
                   .time = time};
  if (request.body) sent.body = asText(*request.body);
  const std::string withoutQuery = sent.url.substr(0, sent.url.find_first_of("?#"));
  if (const auto api = withoutQuery.find(kAPI); api != std::string::npos) {
    sent.base = withoutQuery.substr(0, api + kAPI.size());
    sent.path = withoutQuery.substr(api + kAPI.size());
  } else {
    const auto authority = withoutQuery.find("//");
    const auto path = withoutQuery.find('/', authority == std::string::npos ? 0 : authority + 2);
    if (path != std::string::npos) sent.path = withoutQuery.substr(path);
  }
  return sent;
}

}  // namespace

nlohmann::json SentRequest::json() const {
  if (!body) return nullptr;
  auto parsed = nlohmann::json::parse(*body, nullptr, false);
  return parsed.is_discarded() ? nlohmann::json() : parsed;
}

struct Server::State {
  struct Route {
    Handler handler = [](const SentRequest&) { return failure(URLError::cannotConnectToHost); };
    double delay = 0;
  };
  struct All {
    std::map<std::string, Route, std::less<>> routes;
    std::vector<SentRequest> requests;
    bool offline = false;
  };
  Guarded<All> all;

  Route receive(const SentRequest& request) {
    return all.with([&](All& now) -> Route {
      now.requests.push_back(request);
      if (now.offline)
        return {.handler = [](const SentRequest&) {
          return failure(URLError::notConnectedToInternet);
        }};
      const auto found = now.routes.find(request.path);
      return found == now.routes.end() ? Route{} : found->second;
    });
  }
};

Server::Server() : state_(std::make_shared<State>()) {}

void Server::reply(const std::string& path, Handler handler, double delaySeconds) {
  state_->all.with([&](auto& all) {
    all.routes.insert_or_assign(path, State::Route{std::move(handler), delaySeconds});
  });
}

void Server::reply(const std::string& path, Outcome outcome, double delaySeconds) {
  reply(
      path, [outcome = std::move(outcome)](const SentRequest&) { return outcome; }, delaySeconds);
}

void Server::reply(const std::string& path, std::string_view body, double delaySeconds) {
  reply(path, answer(body), delaySeconds);
}

void Server::setOffline(bool offline) {
  state_->all.with([&](auto& all) { all.offline = offline; });
}

std::vector<SentRequest> Server::requests(std::string_view path) const {
  return state_->all.with([&](const auto& all) {
    auto wanted = all.requests;
    if (!path.empty()) std::erase_if(wanted, [&](const auto& one) { return one.path != path; });
    return wanted;
  });
}

SentRequest Server::lastRequest(std::string_view path) const {
  auto sent = requests(path);
  if (sent.empty()) fatal("nothing was sent to " + std::string(path));
  return std::move(sent.back());
}

void Server::clearRequests() {
  state_->all.with([](auto& all) { all.requests.clear(); });
}

std::string envelope(std::string_view data, std::int64_t time) {
  return R"({"ok":true,"err":null,"data":)" + std::string(data) + R"(,"time":)" +
         std::to_string(time) + "}";
}

std::string errorEnvelope(std::int64_t code, std::string_view message, std::int64_t time) {
  const nlohmann::json text{{"ok", false},
                            {"err", {{"code", code}, {"msg", message}}},
                            {"data", nullptr},
                            {"time", time}};
  return text.dump();
}

URLSession::Outcome answer(std::string_view body) {
  return {.data = toBytes(body), .error = std::nullopt};
}

URLSession::Outcome failure(URLError code) {
  const auto number = static_cast<std::int64_t>(code);
  return {
      .data = std::nullopt,
      .error = Error(kURLErrorDomain, number, "Transport error " + std::to_string(number) + ".")};
}

struct HeadlessURLSession::Flights {
  struct Open {
    bool invalidated = false;
    std::uint64_t lastNumber = 0;
    std::map<std::uint64_t, Done> inFlight;
  };
  Guarded<Open> open;

  Done take(std::uint64_t number) {
    return open.with([&](Open& now) -> Done {
      auto node = now.inFlight.extract(number);
      return node ? std::move(node.mapped()) : nullptr;
    });
  }
};

HeadlessURLSession::HeadlessURLSession(VirtualTime& time, const Server& server)
    : time_(time), server_(server.state_), flights_(std::make_shared<Flights>()) {}

HeadlessURLSession::~HeadlessURLSession() { invalidate(); }

void HeadlessURLSession::send(URLRequest request, Done done) {
  const auto number = flights_->open.with([&](auto& now) -> std::optional<std::uint64_t> {
    if (now.invalidated) return std::nullopt;
    now.inFlight.emplace(++now.lastNumber, std::move(done));
    return now.lastNumber;
  });
  if (!number) return done(failure(URLError::cancelled));

  SentRequest sent = describe(request, time_.now());
  auto route = server_->receive(sent);
  if (route.delay > request.timeout)
    route = {[](const SentRequest&) { return failure(URLError::timedOut); }, request.timeout};
  time_.after(route.delay, [flights = flights_, number = *number, sent = std::move(sent),
                            handler = std::move(route.handler)] {
    if (auto waiting = flights->take(number)) waiting(handler(sent));
  });
}

void HeadlessURLSession::invalidate() {
  while (true) {
    auto cancelled = flights_->open.with([](auto& now) {
      now.invalidated = true;
      return std::exchange(now.inFlight, {});
    });
    if (cancelled.empty()) return;
    for (auto& [number, done] : cancelled) done(failure(URLError::cancelled));
  }
}

bool HeadlessURLSession::isInvalidated() const {
  return flights_->open.with([](const auto& now) { return now.invalidated; });
}

}  // namespace kva::headless
