#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace demo {

/// One fact as the host heard it and as the server received it.
struct Agreement {
  std::string fact, host, server;
  bool agrees = host == server;
};

/// What the host knows of one bid when all is over.
struct PlayedBid {
  std::string kind, bidId;
  long clearingPrice = 0;  ///< thousandths
  int presented = 0, clicked = 0, dismissed = 0;
  std::optional<int> completed{};  ///< absent for a kind whose host is not told
  int quarters = 0;                ///< that its video has; no host is told of them
};

/// Compares a bid that was shown with the server's state ("/control/state").
std::vector<Agreement> compareShown(const PlayedBid& bid, const nlohmann::json& state);
/// Compares a bid that was declared lost.
Agreement compareLost(const PlayedBid& bid, const nlohmann::json& state);

/// Prints the table; true if every row agrees.
bool printTable(const std::vector<Agreement>& rows);

}  // namespace demo
