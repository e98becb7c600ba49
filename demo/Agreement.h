#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace demo {

/// One fact according to the host's callbacks, and according to the server.
struct Agreement {
  std::string fact, host, server;
  bool agrees = host == server;
};

/// What the host's callbacks reported of one bid.
struct PlayedBid {
  std::string kind, bidId;
  long clearingPrice = 0;  ///< thousandths
  int presented = 0, clicked = 0, dismissed = 0;
  std::optional<int> completed{};  ///< absent for a kind without that callback
  int quarters = 0;  ///< of its video, played to the end; there is no callback for them
};

/// Compares a bid that was shown with the server's state ("/control/state").
std::vector<Agreement> compareShown(const PlayedBid& bid, const nlohmann::json& state);
/// Compares a bid that was declared lost.
Agreement compareLost(const PlayedBid& bid, const nlohmann::json& state);

/// Prints the table; true if every row agrees.
bool printTable(const std::vector<Agreement>& rows);

}  // namespace demo
