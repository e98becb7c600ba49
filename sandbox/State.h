#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

/// The server's state as plain values that tests and tools compare.
namespace kva::sandbox {

struct UserRecord {
  std::string uid{};
  std::string record{};  ///< the JSON text of the last accepted registration or update
  std::int64_t updates = 0;
};

struct BidRecord {
  std::string bid{}, uid{}, adUnit{};
  enum class Status { open, lost, loaded } status = Status::open;
  std::optional<std::string> plan{};            ///< of a loaded bid
  std::optional<std::int64_t> clearingPrice{};  ///< of a lost or loaded bid, in thousandths
};

/// The reports for one bid, merged: a flag once true stays true, the highest quarter counts.
struct ReportRecord {
  std::string bid{};
  bool bidKnown = false;  ///< false: this server never made the bid
  std::int64_t impressionAt = 0;
  bool impression = false, failToShow = false, dismissed = false, clicked = false,
       completed = false;
  std::int64_t quarter = 0;
  std::int64_t received = 0;  ///< how many reports were merged
};

struct TrackRecord {
  std::string record{};  ///< the JSON text of the request
  std::string plan{};    ///< the plan it was attributed to, or empty
};

struct State {
  std::vector<UserRecord> users;
  std::vector<BidRecord> bids;
  std::vector<ReportRecord> reports;
  std::vector<TrackRecord> tracks;

  const BidRecord* bid(std::string_view id) const;
  const ReportRecord* report(std::string_view bid) const;
  nlohmann::json toJson() const;
};

/// One request to an API endpoint, and its answer.
struct Exchange {
  std::int64_t number = 0;  ///< from 1, never reused until a reset
  std::int64_t time = 0;    ///< server clock, milliseconds since 1970, at the request's arrival
  std::int64_t micros = 0;  ///< from arrival to the end of its handling, delays included
  std::string method{}, endpoint{};
  std::string request{};   ///< the body of a POST, the query of a GET
  std::string verdict{};   ///< "ok", or the code and message of the error record
  std::string scenario{};  ///< the behaviour's name, "normal" as a rule
  int status = 0;          ///< HTTP; 0 without an answer
  std::string response{};  ///< the body; empty for a reset or a hang
  std::string breach{};    ///< how the scenario's answer breaks the contract; empty if it does not

  nlohmann::json toJson() const;
};

}  // namespace kva::sandbox
