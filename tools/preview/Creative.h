#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/Expected.h"

namespace kva::preview {

/// What the user asks to see.
struct Request {
  std::string what;          ///< an HTML file, a folder or an address
  std::filesystem::path ad;  ///< the ad's JSON; empty: "ad.json" of the folder, else a made-up ad
  // For a made-up ad:
  bool isRewarded = false, isVideo = false;
  std::int64_t countdown = 3;
};

/// A creative as an ad server would deliver it.
struct Creative {
  std::string name;
  std::string html;              ///< the template's document
  nlohmann::json ad;             ///< the answer to "/bid/load", without the bid and the template
  std::filesystem::path folder;  ///< its files; empty: none
  /// The address of the document, which its relative addresses are resolved against; "." is the
  /// folder's. Empty: a template has none.
  std::string base;
  std::vector<std::filesystem::path> sources;  ///< what to watch for changes

  bool isRewarded() const { return ad["crea"]["adt"] == "rewarded"; }
  bool isVideo() const { return ad["crea"]["ctyp"] == "video"; }
  /// The document for a server that has the folder's files below `origin`.
  std::string documentAt(const std::string& origin) const;
  /// The complete ad for that server.
  nlohmann::json adAt(const std::string& origin, const std::string& bid) const;
};

/// Reads the creative. An error says what is wrong with it.
sandbox::expected<Creative, std::string> readCreative(const Request& request);

/// The places in a document with an escape that the assembly of the page replaces: "line 3: \n".
std::vector<std::string> rewrittenEscapes(const std::string& html);

}  // namespace kva::preview
