#include "server-check/Recorder.h"

#include <Kelvara/base/Bytes.h>

#include <charconv>
#include <utility>

namespace kva::check {
namespace {

using Json = nlohmann::json;

/// Decodes percent-encoding. A number in the query stays a number.
Json queryFields(std::string_view query) {
  Json fields = Json::object();
  while (!query.empty()) {
    const auto piece = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), piece.size() + 1));
    const auto equals = piece.find('=');
    const std::string key(piece.substr(0, equals)), text(piece.substr(equals + 1));
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = key == "tver" && error == std::errc() && *end == '\0';
    fields[key] = isNumber ? Json(number) : Json(text);
  }
  return fields;
}

}  // namespace

Recorder::Recorder(std::shared_ptr<URLSession> session, std::string baseURL, double timeoutSeconds)
    : session_(std::move(session)), baseURL_(std::move(baseURL)), timeout_(timeoutSeconds) {}

Exchange Recorder::begin(const URLRequest& request) const {
  const std::string target = request.url.absoluteString().substr(baseURL_.size());
  const auto mark = target.find('?');
  Exchange exchange;
  exchange.path = target.substr(0, mark);
  exchange.fields = request.body ? Json::parse(asText(*request.body), nullptr, false)
                                 : queryFields(std::string_view(target).substr(
                                       mark == std::string::npos ? target.size() : mark + 1));
  exchange.requestBreaches =
      contract::Contract::current().checkRequest(exchange.path, exchange.fields);
  return exchange;
}

void Recorder::send(URLRequest request, Done done) {
  auto exchange = begin(request);
  request.timeout = timeout_;
  {
    std::scoped_lock lock(mutex_);
    ++inFlight_;
  }
  session_->send(std::move(request), [this, exchange = std::move(exchange),
                                      done = std::move(done)](Outcome outcome) mutable {
    finish(std::move(exchange), std::move(outcome), std::move(done));
  });
}

void Recorder::finish(Exchange exchange, Outcome outcome, Done done) {
  exchange.error = outcome.error;
  if (outcome.data) {
    exchange.reply = Json::parse(asText(*outcome.data), nullptr, false);
    if (exchange.reply.is_discarded()) {
      exchange.reply = nullptr;
      exchange.replyBreaches = {{"", "expected an object, got no JSON",
                                 contract::Contract::current().rule("", "answer")}};
    } else {
      exchange.replyBreaches =
          contract::Contract::current().checkReply(exchange.path, exchange.reply);
    }
  }
  if (!exchange.replyBreaches.empty()) outcome.data.reset();
  {
    std::scoped_lock lock(mutex_);
    exchanges_.push_back(std::move(exchange));
  }
  done(std::move(outcome));
  // After `done`, which may send another request.
  std::scoped_lock lock(mutex_);
  --inFlight_;
  idle_.notify_all();
}

std::vector<Exchange> Recorder::takeExchanges() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return inFlight_ == 0; });
  return std::exchange(exchanges_, {});
}

}  // namespace kva::check
