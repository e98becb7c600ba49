#include "sandbox/State.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sandbox/Catalogue.h"

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

constexpr const char* kStatus[] = {"open", "lost", "loaded"};

template <class T>
const T* findBid(const std::vector<T>& records, std::string_view bid) {
  auto found = std::ranges::find(records, bid, &T::bid);
  return found == records.end() ? nullptr : &*found;
}

}  // namespace

const BidRecord* State::bid(std::string_view id) const { return findBid(bids, id); }
const ReportRecord* State::report(std::string_view id) const { return findBid(reports, id); }

Json State::toJson() const {
  Json json = {{"users", Json::array()},
               {"bids", Json::array()},
               {"reports", Json::array()},
               {"tracks", Json::array()}};
  for (const UserRecord& user : users) {
    json["users"].push_back({{"uid", user.uid},
                             {"updates", user.updates},
                             {"record", Json::parse(user.record, nullptr, false)}});
  }
  for (const BidRecord& bid : bids) {
    Json item = {{"bid", bid.bid},
                 {"uid", bid.uid},
                 {"adid", bid.adUnit},
                 {"status", kStatus[static_cast<std::size_t>(bid.status)]}};
    if (const CatalogueAdUnit* unit = findAdUnit(bid.adUnit)) {
      for (const CataloguePlan& plan : unit->plans) item["ecpm"][plan.id] = plan.ecpm;
    }
    if (bid.plan) item["plan"] = *bid.plan;
    if (bid.clearingPrice) item["clearingPrice"] = *bid.clearingPrice;
    json["bids"].push_back(std::move(item));
  }
  for (const ReportRecord& report : reports) {
    json["reports"].push_back({{"bid", report.bid},
                               {"bidKnown", report.bidKnown},
                               {"time", report.impressionAt},
                               {"imp", report.impression},
                               {"fts", report.failToShow},
                               {"dism", report.dismissed},
                               {"clck", report.clicked},
                               {"comp", report.completed},
                               {"quar", report.quarter},
                               {"received", report.received}});
  }
  for (const TrackRecord& track : tracks) {
    json["tracks"].push_back(
        {{"plan", track.plan}, {"record", Json::parse(track.record, nullptr, false)}});
  }
  return json;
}

Json Exchange::toJson() const {
  return {{"number", number},     {"time", time},         {"micros", micros},
          {"method", method},     {"endpoint", endpoint}, {"request", request},
          {"verdict", verdict},   {"scenario", scenario}, {"status", status},
          {"response", response}, {"breach", breach}};
}

}  // namespace kva::sandbox
