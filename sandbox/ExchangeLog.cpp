#include "sandbox/ExchangeLog.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "sandbox/ReadJson.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kKept = 5000;
constexpr std::size_t kShownBytes = 600;

std::string padded(std::int64_t number, std::size_t width) {
  std::string text = std::to_string(number);
  return std::string(width - std::min(width, text.size()), '0') + text;
}

std::string clockTime(std::int64_t milliseconds) {
  std::time_t seconds = milliseconds / 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  return padded(utc.tm_hour, 2) + ":" + padded(utc.tm_min, 2) + ":" + padded(utc.tm_sec, 2) + "." +
         padded(milliseconds % 1000, 3);
}

std::string oneLine(const std::string& text) {
  const auto json = readJson(text);
  std::string line = json ? json->dump(-1, ' ', false, Json::error_handler_t::replace) : text;
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < ' ') c = ' ';
  }
  if (line.size() <= kShownBytes) return line;
  return line.substr(0, kShownBytes) + " ... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace

Exchange ExchangeLog::add(Exchange exchange) {
  {
    std::scoped_lock lock(mutex_);
    exchange.number = ++last_;
    exchanges_.push_back(exchange);
    if (exchanges_.size() > kKept) exchanges_.pop_front();
  }
  added_.notify_all();
  return exchange;
}

std::vector<Exchange> ExchangeLog::selected(std::string_view endpoint) const {
  std::vector<Exchange> chosen;
  for (const Exchange& exchange : exchanges_) {
    if (endpoint.empty() || exchange.endpoint == endpoint) chosen.push_back(exchange);
  }
  return chosen;
}

std::vector<Exchange> ExchangeLog::list(std::string_view endpoint) const {
  std::scoped_lock lock(mutex_);
  return selected(endpoint);
}

bool ExchangeLog::waitFor(std::string_view endpoint, const Enough& enough,
                          std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return added_.wait_for(lock, limit, [&] { return enough(selected(endpoint)); });
}

void ExchangeLog::clear() {
  std::scoped_lock lock(mutex_);
  exchanges_.clear();
  last_ = 0;
}

std::string plainText(const std::vector<Exchange>& exchanges) {
  std::string page;
  for (const Exchange& exchange : exchanges) {
    page += "#" + std::to_string(exchange.number) + " " + clockTime(exchange.time) + " " +
            exchange.method + " " + exchange.endpoint + "  " + exchange.verdict;
    if (exchange.scenario != "normal") page += "  [" + exchange.scenario + "]";
    page += "  " +
            (exchange.status == 0 ? "no answer" : "HTTP " + std::to_string(exchange.status)) +
            ", " + std::to_string(exchange.micros) + " us\n";
    page += "    > " + oneLine(exchange.request) + "\n    < " + oneLine(exchange.response) + "\n";
  }
  return page;
}

}  // namespace kva::sandbox
