#include "demo/Agreement.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace demo {
namespace {

using Json = nlohmann::json;

Json find(const Json& list, const std::string& bidId) {
  for (const Json& entry : list)
    if (entry.value("bid", "") == bidId) return entry;
  return Json::object();
}

std::string text(const Json& entry, const char* key) {
  if (!entry.contains(key)) return "nothing";
  const Json& value = entry[key];
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

std::vector<Agreement> compareShown(const PlayedBid& bid, const Json& state) {
  const Json sold = find(state.at("bids"), bid.bidId);
  const Json report = find(state.at("reports"), bid.bidId);
  const auto row = [&](const char* fact, const std::string& host, const Json& entry,
                       const char* key) {
    return Agreement{bid.kind + ": " + fact, host, text(entry, key)};
  };
  // There is no callback for these, but the demo plays the ad to its end.
  const auto withoutCallback = [&](const char* fact, int expected, const char* key) {
    const std::string received = text(report, key);
    return Agreement{bid.kind + ": " + fact, "(no callback)", received,
                     received == std::to_string(expected)};
  };
  return {row("bid is", "loaded", sold, "status"),
          row("clearing price", std::to_string(bid.clearingPrice), sold, "clearingPrice"),
          row("presented", std::to_string(bid.presented), report, "imp"),
          row("clicked", std::to_string(bid.clicked), report, "clck"),
          withoutCallback("video quarters", bid.quarters, "quar"),
          bid.completed ? row("reward earned", std::to_string(*bid.completed), report, "comp")
                        : withoutCallback("countdown over", 1, "comp"),
          row("dismissed", std::to_string(bid.dismissed), report, "dism")};
}

Agreement compareLost(const PlayedBid& bid, const Json& state) {
  const Json sold = find(state.at("bids"), bid.bidId);
  return {bid.kind + ": lost against", "lost " + std::to_string(bid.clearingPrice),
          text(sold, "status") + " " + text(sold, "clearingPrice")};
}

bool printTable(const std::vector<Agreement>& rows) {
  std::printf("\n%-34s %-42s %-42s\n", "", "host", "server");
  bool agree = true;
  for (const Agreement& row : rows) {
    agree = agree && row.agrees;
    std::printf("%-34s %-42s %-42s %s\n", row.fact.c_str(), row.host.c_str(), row.server.c_str(),
                row.agrees ? "agree" : "DISAGREE");
  }
  std::printf("\n%s\n", agree ? "Host and server agree." : "Host and server do NOT agree.");
  return agree;
}

}  // namespace demo
