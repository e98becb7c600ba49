#include "sandbox/Server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "Kelvara/base/Guarded.h"
#include "sandbox/Envelope.h"
#include "sandbox/ExchangeLog.h"
#include "sandbox/HttpServer.h"
#include "sandbox/ReadInteger.h"
#include "sandbox/ReadJson.h"
#include "sandbox/Schema.h"
#include "sandbox/Service.h"
#include "sandbox/SpoilBytes.h"
#include "sandbox/WhyNoAd.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view kBase = "/api/v1";
constexpr const char* kJsonType = "application/json";
constexpr const char* kPageType = "text/html; charset=utf-8";
constexpr const char* kTextType = "text/plain; charset=utf-8";

constexpr const char* kIndex = R"(Kelvara sandbox ad server

  /                           the console
  /docs, /openapi.json        the contract between the SDK and an ad server
  /api/v1/...                 the ad server's nine endpoints
  /creatives/...              what its ads show

  GET  /control/log           every exchange, for reading        (?endpoint=/bid/init)
  GET  /control/exchanges     the same as JSON                   (?endpoint=/bid/init&since=7)
  GET  /control/catalogue     identifiers, plans and templates
  GET  /control/state         users, bids, merged reports, tracked installations
  GET  /control/scenarios     how each endpoint behaves
  POST /control/scenario      {"endpoint": "/bid/init" or "*", "scenario": "error", "code": 503,
                               "message": "Busy", "key": "data.bid", "value": 5, "delay": 250,
                               "times": 2}, or as on the command line
                              {"endpoint": "/init", "text": "error:503:Busy,times:2"}
  POST /control/plan          {"plan": ID, "ecpm": 900, "caph": 3, "capd": 12, "on": false}
  POST /control/clock         {"skew": -3600000}                 milliseconds
  POST /control/template      {"tmpl": "playable", "html": "..."} becomes its newest version
  POST /control/reset         forgets everything above

Scenarios: normal, no-fill, error, not-ok, missing, wrong-type, replace, malformed, empty,
http-500, reset, hang, throttled, truncated, cut-head, reset-body, garbage-before, garbage-within,
repeated-bytes, repeated-answer.
)";

Options completed(Options options) {
  std::error_code error;
  auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (options.data.empty()) options.data = program.parent_path() / KELVARA_DATA_FROM_PROGRAM;
  return options;
}

/// The HTTP library does not read the body of a GET and would parse it as the next request.
std::string drainBody(const httplib::Request& request) {
  if (request.has_header("Transfer-Encoding")) return "(chunked)";
  std::string length = request.get_header_value("Content-Length");
  std::size_t left = 0;
  std::from_chars(length.data(), length.data() + length.size(), left);
  std::string body;
  char piece[1024];
  while (left > 0) {
    ssize_t got = Connection::current().read(piece, std::min(left, sizeof piece));
    if (got <= 0) break;
    body.append(piece, static_cast<std::size_t>(got));
    left -= static_cast<std::size_t>(got);
  }
  return body;
}

RawRequest rawRequest(const httplib::Request& request, std::string path) {
  return {.method = request.method,
          .path = std::move(path),
          .query = request.params,
          .accept = request.get_header_value("Accept"),
          .contentType = request.get_header_value("Content-Type"),
          .body = request.method == "GET" ? drainBody(request) : request.body};
}

/// Returns the first breach of the contract in an answer, or an empty text.
std::string breachOf(const std::string& path, const std::string& body) {
  if (!findEndpoint(path)) return {};
  const auto envelope = readJson(body);
  if (!envelope) return "body: expected an object, got no JSON";
  const auto breaches = contract::Contract::current().checkReply(path, *envelope);
  return breaches.empty() ? std::string() : breaches.front().text();
}

bool isHost(const std::string& host) {
  return !host.empty() && std::ranges::all_of(host, [](unsigned char c) {
    return (c < 128 && std::isalnum(c)) || c == '.' || c == ':' || c == '-' || c == '[' || c == ']';
  });
}

}  // namespace

class Server::Impl {
 public:
  explicit Impl(Options given)
      : options(completed(std::move(given))),
        service(Service(options.database, options.data, options.periods)) {
    skew = options.clockSkew;
    routeApi();
    routeReadings();
    routeControl();
    routeCreatives();
  }

  void routeApi();
  void routeReadings();
  void routeControl();
  void routeCreatives();

  void answerApi(const httplib::Request& request, httplib::Response& response,
                 const std::string& path);
  Service::Result carryOut(const RawRequest& request, const Scenario& scenario,
                           const std::string& origin);
  void deliver(Exchange exchange, httplib::Response& response, const Scenario& scenario,
               steady_clock::time_point begun);
  void control(const httplib::Request& request, httplib::Response& response,
               const std::function<expected<void, std::string>(const Json&)>& act);

  bool setScenario(std::string_view endpoint, const Scenario& scenario);
  Scenario takeScenario(const std::string& endpoint);
  std::int64_t now() const;
  std::string originFor(const httplib::Request& request) const;
  void reset();

  Options options;
  Guarded<Service> service;
  Guarded<std::map<std::string, Scenario>> scenarios;
  ExchangeLog log;
  std::atomic<milliseconds> skew;
  std::string origin;
  int port = 0;
  HttpServer http;  // last, so its threads end before what they use is destroyed
};

void Server::Impl::routeApi() {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    answerApi(request, response, request.path.substr(kBase.size()));
  };
  for (const Endpoint& endpoint : endpoints()) {
    std::string pattern = std::string(kBase).append(endpoint.path);
    http.Get(pattern, handler).Post(pattern, handler);
  }
  // Other paths under the base get an error record too. The library also calls this handler for an
  // endpoint's own 404, which stays unchanged.
  http.set_error_handler([handler](const httplib::Request& request, httplib::Response& response) {
    bool unknown = response.status == 404 && !response.has_header("Content-Type") &&
                   request.path.starts_with(std::string(kBase) + "/");
    if (unknown) handler(request, response);
  });
}

void Server::Impl::answerApi(const httplib::Request& request, httplib::Response& response,
                             const std::string& path) {
  auto begun = steady_clock::now();
  Exchange exchange{.time = now(), .method = request.method, .endpoint = path};
  Scenario scenario = takeScenario(path);
  RawRequest raw = rawRequest(request, path);
  exchange.request = request.method == "GET" ? request.target : raw.body;
  exchange.scenario = name(scenario.behaviour);
  if (scenario.delay.count() > 0 && Connection::current().waitUntilOver(scenario.delay)) {
    exchange.verdict = "client gone";
    scenario.behaviour = Behaviour::hang;
  } else {
    auto envelope = Envelope::of(carryOut(raw, scenario, originFor(request)), now(), scenario);
    exchange.breach = breachOf(path, envelope.body);
    if (scenario.behaviour == Behaviour::normal && !exchange.breach.empty()) {
      // A fault of the sandbox itself: refuse, so no client relies on the wrong answer.
      Refusal fault{500, "the sandbox's own answer breaks the contract, " + exchange.breach};
      envelope = Envelope::of(unexpected(fault), now(), scenario);
    }
    exchange.verdict = std::move(envelope.verdict);
    exchange.status = envelope.status;
    exchange.response = std::move(envelope.body);
  }
  deliver(std::move(exchange), response, scenario, begun);
}

Service::Result Server::Impl::carryOut(const RawRequest& request, const Scenario& scenario,
                                       const std::string& from) {
  auto checked = checkRequest(request);
  if (!checked) return unexpected(Refusal{400, checked.error()});
  if (scenario.behaviour == Behaviour::serverError) {
    return unexpected(Refusal{scenario.code, scenario.message});
  }
  if (scenario.behaviour == Behaviour::notOk) return Json(nullptr);
  if (scenario.behaviour == Behaviour::noFill && request.path == "/bid/init") {
    return Json{{"plans", Json::array()}};
  }
  return service.with([&](Service& rules) { return rules.handle(request.path, *checked, from); });
}

/// Logs the exchange before anything is sent, so a client that has the answer finds it in the log.
void Server::Impl::deliver(Exchange exchange, httplib::Response& response, const Scenario& scenario,
                           steady_clock::time_point begun) {
  bool answers = scenario.behaviour != Behaviour::reset && scenario.behaviour != Behaviour::hang;
  if (!answers) {
    exchange.breach = "no answer";
    exchange.status = 0;
    exchange.response.clear();
  }
  const std::string body = exchange.response;
  if (scenario.behaviour == Behaviour::truncated) exchange.response.resize(body.size() / 2);
  if (spoilsBytes(scenario.behaviour) && scenario.behaviour != Behaviour::throttled)
    exchange.breach = "bytes: spoiled on their way";
  response.status = answers ? exchange.status : 500;
  exchange.micros = std::chrono::duration_cast<microseconds>(steady_clock::now() - begun).count();
  exchange = log.add(std::move(exchange));
  if (options.onExchange) options.onExchange(exchange);

  switch (scenario.behaviour) {
    case Behaviour::reset:
      return Connection::current().abandon(Connection::Ending::reset);
    case Behaviour::hang:
      Connection::current().waitUntilOver(milliseconds(-1));
      return Connection::current().abandon(Connection::Ending::close);
    default:
      break;
  }
  response.set_content(body, kJsonType);
  if (!spoilsBytes(scenario.behaviour)) return;
  const std::size_t pieces = scenario.behaviour == Behaviour::throttled ? 16 : 1;
  Connection::current().holdAnswer(std::bind_front(spoilBytes, scenario.behaviour), pieces);
}

void Server::Impl::control(const httplib::Request& request, httplib::Response& response,
                           const std::function<expected<void, std::string>(const Json&)>& act) {
  const auto body = readJson(request.body.empty() ? "{}" : request.body);
  auto done = body && body->is_object() ? act(*body) : unexpected("expected a JSON object");
  if (!done) response.status = 400;
  Json answer = {{"ok", done.has_value()}};
  if (!done) answer["problem"] = done.error();
  response.set_content(answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n",
                       kJsonType);
}

void Server::Impl::routeReadings() {
  using httplib::Request, httplib::Response;
  auto json = [](Response& response, const Json& value) {
    response.set_content(value.dump(2, ' ', false, Json::error_handler_t::replace) + "\n",
                         kJsonType);
  };
  auto page = [this](const char* path, const char* file) {
    http.Get(path, [name = options.data / "pages" / file](const Request&, Response& response) {
      std::ifstream stream(name, std::ios::binary);
      response.set_content(std::string(std::istreambuf_iterator<char>(stream), {}), kPageType);
    });
  };
  page("/", "console.html");
  page("/docs", "docs.html");
  http.Get("/openapi.json", [](const Request&, Response& response) {
    response.set_content(contract::Contract::current().documentText(), kJsonType);
  });
  http.Get("/control",
           [](const Request&, Response& response) { response.set_content(kIndex, kTextType); });
  http.Get("/control/catalogue", [this, json](const Request&, Response& response) {
    json(response, service.with([](Service& rules) { return rules.catalogue(); }));
  });
  http.Get("/control/log", [this](const Request& request, Response& response) {
    response.set_content(plainText(log.list(request.get_param_value("endpoint"))), kTextType);
  });
  http.Get("/control/exchanges", [this, json](const Request& request, Response& response) {
    Json list = Json::array();
    const auto since = readInteger(request.get_param_value("since")).value_or(0);
    for (const Exchange& exchange : log.list(request.get_param_value("endpoint"))) {
      if (exchange.number <= since) continue;
      list.push_back(exchange.toJson());
      list.back()["whyNoAd"] = whyNoAd(exchange);
    }
    json(response, list);
  });
  http.Get("/control/state", [this, json](const Request&, Response& response) {
    json(response, service.with([](Service& rules) { return rules.state(); }).toJson());
  });
  http.Get("/control/scenarios", [this, json](const Request&, Response& response) {
    Json map = Json::object();
    auto current = scenarios.get();
    for (const Endpoint& endpoint : endpoints()) {
      map[endpoint.path] = current[endpoint.path].toJson();
    }
    json(response, map);
  });
}

void Server::Impl::routeControl() {
  using httplib::Request, httplib::Response;
  using Done = expected<void, std::string>;
  auto post = [this](const char* path, std::function<Done(const Json&)> act) {
    http.Post(path, [this, act = std::move(act)](const Request& request, Response& response) {
      control(request, response, act);
    });
  };
  post("/control/scenario", [this](const Json& body) -> Done {
    const Json text = body.value("text", Json());
    auto scenario =
        text.is_string() ? Scenario::parse(text.get<std::string>()) : Scenario::fromJson(body);
    if (!scenario) return unexpected(scenario.error());
    auto endpoint = body.find("endpoint");
    bool known = endpoint != body.end() && endpoint->is_string() &&
                 setScenario(endpoint->get<std::string>(), *scenario);
    if (!known) return unexpected("endpoint: expected one of the nine, or \"*\"");
    return {};
  });
  post("/control/plan", [this](const Json& body) {
    return service.with([&](Service& rules) { return rules.setPlan(body); });
  });
  post("/control/clock", [this](const Json& body) -> Done {
    auto given = body.find("skew");
    if (given == body.end() || !given->is_number_integer()) {
      return unexpected("skew: expected milliseconds");
    }
    skew = milliseconds(given->get<std::int64_t>());
    return {};
  });
  post("/control/template", [this](const Json& body) -> Done {
    auto id = body.find("tmpl"), html = body.find("html");
    if (id == body.end() || html == body.end() || !id->is_string() || !html->is_string()) {
      return unexpected("tmpl, html: expected two strings");
    }
    bool known = service.with([&](Service& rules) {
      return rules.publishTemplate(id->get<std::string>(), html->get<std::string>());
    });
    if (!known) return unexpected("tmpl: no such template");
    return {};
  });
  post("/control/reset", [this](const Json&) -> Done {
    reset();
    return {};
  });
}

void Server::Impl::routeCreatives() {
  http.set_mount_point("/creatives", (options.data / "creatives").string());
  http.set_file_request_handler([](const httplib::Request&, httplib::Response& response) {
    response.set_header("Accept-Ranges", "bytes");
    // A creative's page has no origin, so each of its requests is a cross-origin one.
    response.set_header("Access-Control-Allow-Origin", "*");
  });
}

bool Server::Impl::setScenario(std::string_view endpoint, const Scenario& scenario) {
  if (endpoint != "*" && !findEndpoint(endpoint)) return false;
  scenarios.with([&](auto& map) {
    for (const Endpoint& each : endpoints()) {
      if (endpoint == "*" || endpoint == each.path) map[each.path] = scenario;
    }
  });
  return true;
}

Scenario Server::Impl::takeScenario(const std::string& endpoint) {
  return scenarios.with([&](auto& map) {
    auto found = map.find(endpoint);
    if (found == map.end()) return Scenario();
    Scenario scenario = found->second;
    if (found->second.times && --*found->second.times == 0) map.erase(found);
    return scenario;
  });
}

std::int64_t Server::Impl::now() const {
  auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return (std::chrono::duration_cast<milliseconds>(sinceEpoch) + skew.load()).count();
}

/// The creatives' addresses use the client's name for this server, so other machines reach them.
std::string Server::Impl::originFor(const httplib::Request& request) const {
  std::string host = request.get_header_value("Host");
  return isHost(host) ? "http://" + host : origin;
}

void Server::Impl::reset() {
  service.with([](Service& rules) { rules.reset(); });
  scenarios.set({});
  log.clear();
}

Server::Server(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Server::~Server() { stop(); }

expected<void, std::string> Server::start() {
  for (const auto& [endpoint, scenario] : impl_->options.scenarios) {
    if (!impl_->setScenario(endpoint, scenario)) {
      return unexpected("no endpoint " + endpoint);
    }
  }
  auto problem = impl_->service.with([](Service& rules) { return rules.takeError(); });
  if (problem) return unexpected(*problem);
  impl_->port = impl_->http.bind(impl_->options.listen, impl_->options.port);
  if (impl_->port < 0) {
    const bool isBusy = errno == EADDRINUSE;
    return unexpected("cannot listen on " + impl_->options.listen + " port " +
                      std::to_string(impl_->options.port) +
                      (isBusy ? ": another program listens there. Stop it, or choose another port; "
                                "0 picks a free one"
                              : ": " + std::string(std::strerror(errno))));
  }
  bool isIPv6 = impl_->options.listen.contains(':');
  impl_->origin = "http://" + (isIPv6 ? "[" + impl_->options.listen + "]" : impl_->options.listen) +
                  ":" + std::to_string(impl_->port);
  impl_->http.startServing();
  return {};
}

void Server::stop() { impl_->http.stopServing(); }

std::string Server::origin() const { return impl_->origin; }
std::string Server::baseURL() const { return impl_->origin + std::string(kBase); }
int Server::port() const { return impl_->port; }

bool Server::setScenario(std::string_view endpoint, Scenario scenario) {
  return impl_->setScenario(endpoint, scenario);
}
void Server::clearScenarios() { impl_->scenarios.set({}); }
void Server::setClockSkew(milliseconds skew) { impl_->skew = skew; }

bool Server::publishTemplate(std::string_view id, std::string html) {
  return impl_->service.with([&](Service& rules) { return rules.publishTemplate(id, html); });
}

std::vector<Exchange> Server::exchanges(std::string_view endpoint) const {
  return impl_->log.list(endpoint);
}
bool Server::waitForExchanges(std::string_view endpoint, const ExchangeLog::Enough& enough,
                              milliseconds limit) const {
  return impl_->log.waitFor(endpoint, enough, limit);
}
State Server::state() const {
  return impl_->service.with([](Service& rules) { return rules.state(); });
}
void Server::reset() { impl_->reset(); }

}  // namespace kva::sandbox
