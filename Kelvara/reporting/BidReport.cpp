#include <Kelvara/reporting/BidReport.h>

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

namespace kva {

std::string BidReportAction::description() const {
  switch (kind) {
    case videoQuarter:
      return "videoQuarter(" + std::to_string(quarter) + ")";
    case impression:
      return "impression";
    case failToShow:
      return "failToShow";
    case click:
      return "click";
    case complete:
      return "complete";
    case dismiss:
      return "dismiss";
  }
  std::unreachable();
}

void BidReport::apply(const BidReportAction& action, std::int64_t serverTime) {
  switch (action.kind) {
    case BidReportAction::videoQuarter:
      quarter = action.quarter;
      return;
    case BidReportAction::impression:
      impressionAt = serverTime;
      isShown = true;
      return;
    case BidReportAction::failToShow:
      isFailToShow = true;
      return;
    case BidReportAction::click:
      isClicked = true;
      return;
    case BidReportAction::complete:
      isCompleted = true;
      return;
    case BidReportAction::dismiss:
      isDismissed = true;
      return;
  }
}

void BidReport::join(const BidReport& other) {
  createdAt = std::min(createdAt, other.createdAt);
  if (!isShown) impressionAt = other.impressionAt;
  isShown |= other.isShown;
  isFailToShow |= other.isFailToShow;
  isClicked |= other.isClicked;
  isDismissed |= other.isDismissed;
  isCompleted |= other.isCompleted;
  quarter = std::max(quarter, other.quarter);
}

Result<BidReport> BidReport::decode(const Json& json) {
  Reader in(json);
  BidReport report{.bidId = in.required<std::string>("bidId"),
                   .createdAt = in.required<double>("createdAt"),
                   .impressionAt = in.required<std::int64_t>("impressionAt"),
                   .isShown = in.required<bool>("isShown"),
                   .isFailToShow = in.required<bool>("isFailToShow"),
                   .isClicked = in.required<bool>("isClicked"),
                   .isDismissed = in.required<bool>("isDismissed"),
                   .isCompleted = in.required<bool>("isCompleted"),
                   .quarter = in.required<std::int64_t>("quarter")};
  return in.finish(std::move(report));
}

Json BidReport::toJson() const {
  return {{"bidId", bidId},
          {"createdAt", createdAt},
          {"impressionAt", impressionAt},
          {"isShown", isShown},
          {"isFailToShow", isFailToShow},
          {"isClicked", isClicked},
          {"isDismissed", isDismissed},
          {"isCompleted", isCompleted},
          {"quarter", quarter}};
}

Json BidReport::dictionaryValue() const {
  return {{"bid", bidId},        {"time", impressionAt}, {"imp", isShown},
          {"fts", isFailToShow}, {"dism", isDismissed},  {"clck", isClicked},
          {"comp", isCompleted}, {"quar", quarter}};
}

}  // namespace kva
