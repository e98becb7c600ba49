#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "sandbox/Catalogue.h"
#include "sandbox/Expected.h"
#include "sandbox/Periods.h"
#include "sandbox/Store.h"

namespace kva::sandbox {

/// Why a request is refused; becomes the answer's error record.
struct Refusal {
  std::int64_t code;
  std::string message;
};

/// A plan's price and caps, and whether it bids.
struct PlanTerms {
  std::int64_t ecpm, capHourly, capDaily;
  bool isOn = true;
};

/// The rules behind the nine endpoints. For one thread at a time.
class Service {
 public:
  using Result = expected<nlohmann::json, Refusal>;

  Service(const std::string& database, std::filesystem::path data, Periods periods);

  /// Carries out a checked request and returns the payload of its answer. The addresses of the
  /// server's own files start with `origin`.
  Result handle(std::string_view endpoint, const nlohmann::json& request, std::string_view origin);

  /// Changes the given terms of a plan until the next reset: {"plan": ID, "ecpm": 900, "caph": 3,
  /// "capd": 12, "on": true}.
  expected<void, std::string> setPlan(const nlohmann::json& json);
  /// The application, ad units, plans with their current terms, and templates.
  nlohmann::json catalogue();
  bool publishTemplate(std::string_view id, std::string_view html);
  State state() { return store_.state(); }
  void reset();
  /// Returns each failure of the database or the data folder once.
  std::optional<std::string> takeError() { return store_.takeError(); }

 private:
  using Json = nlohmann::json;
  Result init(const Json& request, std::string_view origin);
  Result registerUser(const Json& request);
  Result update(const Json& request);
  Result bidInit(const Json& request);
  Result bidLost(const Json& request);
  Result bidLoad(const Json& request, std::string_view origin);
  Result htmlTemplate(const Json& request);
  Result bidStats(const Json& request);
  Result track(const Json& request);

  expected<void, Refusal> knownUser(const Json& request);
  expected<BidRecord, Refusal> openBid(const Json& request);
  PlanTerms termsOf(const CataloguePlan& plan) const;
  void seedTemplates();

  Store store_;
  std::filesystem::path data_;
  Periods periods_;
  std::map<std::string_view, PlanTerms> changedPlans_;
};

}  // namespace kva::sandbox
