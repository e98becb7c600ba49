#include "sandbox/Service.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace kva::sandbox {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kBadRequest = 400, kForbidden = 403, kUserNotFound = 404, kConflict = 409,
                       kInternal = 500;

auto refuse(std::int64_t code, std::string message) {
  return unexpected(Refusal{code, std::move(message)});
}

std::string text(const Json& request, const char* key) { return request[key].get<std::string>(); }

std::string address(std::string_view origin, std::string_view path) {
  return std::string(origin).append(path);
}

/// The contract has texts per language as a string that holds a JSON object.
std::string localised(std::span<const Text> texts) {
  Json map = Json::object();
  for (const Text& entry : texts) map[std::string(entry.language)] = entry.text;
  return map.dump();
}

Json planJson(const CataloguePlan& plan, const PlanTerms& terms) {
  return {
      {"plan", plan.id}, {"capd", terms.capDaily}, {"caph", terms.capHourly}, {"ecpm", terms.ecpm}};
}

const CataloguePlan* findPlan(const Json& id) {
  for (const CatalogueAdUnit& unit : adUnits()) {
    auto found = std::ranges::find(unit.plans, id, &CataloguePlan::id);
    if (found != unit.plans.end()) return &*found;
  }
  return nullptr;
}

Json adJson(const std::string& bid, const CatalogueCreative& creative, std::string_view origin) {
  Json files = Json::array();
  for (const CatalogueFile& file : creative.files) {
    files.push_back({{"id", file.id},
                     {"furl", address(origin, file.path)},
                     {"ornt", file.orientation},
                     {"ftyp", file.type}});
  }
  return {{"bid", bid},
          {"tmpl", creative.templateId},
          {"fls", files},
          {"crea",
           {{"id", creative.id},
            {"adt", creative.adType},
            {"ctyp", creative.contentType},
            {"adur", creative.countdown},
            {"titl", creative.title},
            {"bton", localised(creative.callToAction)},
            {"deta", localised(creative.description)},
            {"curl", creative.clickUrl},
            {"icon", address(origin, creative.icon)},
            {"shouldCareSafeArea", false}}}};
}

ReportRecord reportFrom(const Json& json) {
  return {.bid = json["bid"],
          .impressionAt = json["time"],
          .impression = json["imp"],
          .failToShow = json["fts"],
          .dismissed = json["dism"],
          .clicked = json["clck"],
          .completed = json["comp"],
          .quarter = json["quar"]};
}

}  // namespace

Service::Service(const std::string& database, std::filesystem::path data, Periods periods)
    : store_(database), data_(std::move(data)), periods_(periods) {
  seedTemplates();
}

void Service::seedTemplates() {
  for (const CatalogueTemplate& entry : templates()) {
    std::ifstream file(data_ / "templates" / entry.file, std::ios::binary);
    std::string html{std::istreambuf_iterator<char>(file), {}};
    if (file) {
      store_.putTemplate(entry.id, entry.version, html);
    } else {
      store_.fail("data: cannot read " + (data_ / "templates" / entry.file).string());
    }
  }
}

void Service::reset() {
  store_.forget();
  changedPlans_.clear();
  seedTemplates();
}

PlanTerms Service::termsOf(const CataloguePlan& plan) const {
  auto changed = changedPlans_.find(plan.id);
  return changed != changedPlans_.end() ? changed->second
                                        : PlanTerms{plan.ecpm, plan.capHourly, plan.capDaily};
}

expected<void, std::string> Service::setPlan(const Json& json) {
  const CataloguePlan* plan = findPlan(json.value("plan", Json()));
  if (!plan) return unexpected("plan: no such plan");
  PlanTerms terms = termsOf(*plan);
  for (const auto& [key, value] : json.items()) {
    std::int64_t* number = key == "ecpm"   ? &terms.ecpm
                           : key == "caph" ? &terms.capHourly
                           : key == "capd" ? &terms.capDaily
                                           : nullptr;
    if (number && (!value.is_number_integer() || value < 0)) {
      return unexpected(key + ": expected an integer from 0");
    }
    if (key == "on" && !value.is_boolean()) return unexpected("on: expected true or false");
    if (number) *number = value;
    if (key == "on") terms.isOn = value;
  }
  changedPlans_.insert_or_assign(plan->id, terms);
  return {};
}

Json Service::catalogue() {
  Json units = Json::array(), pages = Json::array();
  for (const CatalogueAdUnit& unit : adUnits()) {
    Json plans = Json::array();
    for (const CataloguePlan& plan : unit.plans) {
      const PlanTerms terms = termsOf(plan);
      plans.push_back(planJson(plan, terms));
      plans.back()["on"] = terms.isOn;
    }
    units.push_back({{"adid", unit.id},
                     {"adt", unit.adType},
                     {"creative", unit.creative->id},
                     {"plans", plans}});
  }
  for (const CatalogueTemplate& entry : templates()) {
    pages.push_back({{"tmpl", entry.id}, {"tver", store_.newestTemplate(entry.id)}});
  }
  return {
      {"aid", kApplicationId}, {"tester", kTesterIDFA}, {"adUnits", units}, {"templates", pages}};
}

bool Service::publishTemplate(std::string_view id, std::string_view html) {
  std::int64_t newest = store_.newestTemplate(id);
  if (newest == 0) return false;
  store_.putTemplate(id, newest + 1, html);
  return true;
}

Service::Result Service::handle(std::string_view endpoint, const Json& request,
                                std::string_view origin) {
  if (request.contains("aid") && request["aid"] != kApplicationId) {
    return refuse(kForbidden, "aid: no such application");
  }
  Result result = endpoint == "/init"        ? init(request, origin)
                  : endpoint == "/register"  ? registerUser(request)
                  : endpoint == "/update"    ? update(request)
                  : endpoint == "/bid/init"  ? bidInit(request)
                  : endpoint == "/bid/lost"  ? bidLost(request)
                  : endpoint == "/bid/load"  ? bidLoad(request, origin)
                  : endpoint == "/template"  ? htmlTemplate(request)
                  : endpoint == "/bid/stats" ? bidStats(request)
                                             : track(request);
  if (auto error = takeError()) return refuse(kInternal, *error);
  return result;
}

Service::Result Service::init(const Json& request, std::string_view origin) {
  Json versions = Json::object();
  for (const CatalogueTemplate& entry : templates()) {
    versions[std::string(entry.id)] = store_.newestTemplate(entry.id);
  }
  Json tester = {
      {"idfa", kTesterDigest}, {"test", true}, {"suite", false}, {"log", true}, {"sandbox", true}};
  Json settings = {
      {"dip", periods_.betweenUploads}, {"nfsp", periods_.restAfterNoFill}, {"sndm", true}};
  return Json{{"aid", request["aid"]},
              {"tids", Json::array({tester})},
              {"btyp", Json::array()},
              {"bads", Json::array()},
              {"tmpv", versions},
              {"hasc", true},
              {"pp", address(origin, "/creatives/privacy.html")},
              {"sett", settings}};
}

Service::Result Service::registerUser(const Json& request) {
  return Json{{"aid", request["aid"]},
              {"uid", store_.addUser(text(request, "aid"), request.dump())}};
}

Service::Result Service::update(const Json& request) {
  if (auto known = knownUser(request); !known) return unexpected(known.error());
  store_.updateUser(text(request, "uid"), request.dump());
  return Json{{"aid", request["aid"]}, {"uid", request["uid"]}};
}

Service::Result Service::bidInit(const Json& request) {
  if (auto known = knownUser(request); !known) return unexpected(known.error());
  const CatalogueAdUnit* unit = findAdUnit(text(request, "adid"));
  if (!unit) return refuse(kBadRequest, "adid: no such ad unit");
  if (request["adt"] != unit->adType) {
    return refuse(kBadRequest, "adt: this ad unit is " + std::string(unit->adType));
  }
  Json plans = Json::array();
  for (const CataloguePlan& plan : unit->plans) {
    const PlanTerms terms = termsOf(plan);
    if (terms.isOn) plans.push_back(planJson(plan, terms));
  }
  if (plans.empty()) return Json{{"plans", plans}};
  return Json{{"bid", store_.addBid(text(request, "uid"), unit->id)}, {"plans", plans}};
}

Service::Result Service::bidLost(const Json& request) {
  auto bid = openBid(request);
  if (!bid) return unexpected(bid.error());
  bid->status = BidRecord::Status::lost;
  bid->clearingPrice = request["lecpm"];
  store_.closeBid(*bid);
  return Json(true);
}

Service::Result Service::bidLoad(const Json& request, std::string_view origin) {
  auto bid = openBid(request);
  if (!bid) return unexpected(bid.error());
  const CatalogueAdUnit* unit = findAdUnit(bid->adUnit);
  std::string plan = text(request, "plan");
  if (!unit || std::ranges::find(unit->plans, plan, &CataloguePlan::id) == unit->plans.end()) {
    return refuse(kBadRequest, "plan: not one that was offered for this bid");
  }
  bid->status = BidRecord::Status::loaded;
  bid->plan = plan;
  bid->clearingPrice = request["recpm"];
  store_.closeBid(*bid);
  return adJson(bid->bid, *unit->creative, origin);
}

Service::Result Service::htmlTemplate(const Json& request) {
  std::string id = text(request, "tmpl");
  auto entry = std::ranges::find(templates(), id, &CatalogueTemplate::id);
  if (entry == templates().end()) return refuse(kBadRequest, "tmpl: no such template");
  std::int64_t version = request.value("tver", store_.newestTemplate(id));
  auto html = store_.templateHtml(id, version);
  if (!html) return refuse(kBadRequest, "tver: this template has no such version");
  return Json{{"tmpl", id},
              {"adt", entry->adType},
              {"name", entry->name},
              {"html", *html},
              {"tver", version}};
}

Service::Result Service::bidStats(const Json& request) {
  if (auto known = knownUser(request); !known) return unexpected(known.error());
  for (const Json& report : request["stats"]) store_.mergeReport(reportFrom(report));
  return Json("accepted");
}

Service::Result Service::track(const Json& request) {
  // An installation without an advertising identifier cannot be attributed.
  bool attributed = !text(request, "idfa").empty();
  store_.addTrack(request.dump(), attributed ? kCampaignPlan : std::string_view{});
  return Json{{"plan", attributed ? Json(kCampaignPlan) : Json(nullptr)}};
}

expected<void, Refusal> Service::knownUser(const Json& request) {
  if (store_.hasUser(text(request, "aid"), text(request, "uid"))) return {};
  return refuse(kUserNotFound, "uid: no such user");
}

expected<BidRecord, Refusal> Service::openBid(const Json& request) {
  auto bid = store_.bid(text(request, "bid"));
  if (!bid) return refuse(kBadRequest, "bid: no such bid");
  if (bid->status == BidRecord::Status::lost) return refuse(kConflict, "bid: already lost");
  if (bid->status == BidRecord::Status::loaded) return refuse(kConflict, "bid: already loaded");
  return *bid;
}

}  // namespace kva::sandbox
