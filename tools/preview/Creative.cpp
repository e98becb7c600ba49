#include "Creative.h"

#include <libsoup/soup.h>

#include <Kelvara/ads/Ad.h>
#include <Kelvara/base/Json.h>
#include <Kelvara/base/StringExtensions.h>
#include <platform/linux/GlibSupport.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <optional>

namespace kva::preview {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using sandbox::expected;
using sandbox::unexpected;
using Text = expected<std::string, std::string>;

constexpr const char* kBid = "00000000-0000-0000-0000-000000000000";
constexpr const char* kOwnFolder = ".";

bool isAddress(const std::string& text) {
  return text.starts_with("http://") || text.starts_with("https://");
}

Text readFile(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) return unexpected("cannot read " + file.string());
  return text;
}

Text fetch(const std::string& address) {
  const auto session = GObjectPtr<SoupSession>(soup_session_new());
  const auto message = GObjectPtr<SoupMessage>(soup_message_new("GET", address.c_str()));
  if (!message) return unexpected("not an address: " + address);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) body =
      soup_session_send_and_read(session.get(), message.get(), nullptr, &error);
  if (!body) return unexpected(address + ": " + error->message);
  if (const auto status = soup_message_get_status(message.get()); status != SOUP_STATUS_OK)
    return unexpected(address + ": status " + std::to_string(status));
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_bytes_get_data(body, &size));
  return std::string(data, size);
}

/// The only document of the folder, or the one with a usual name.
std::optional<fs::path> documentOf(const fs::path& folder) {
  for (const char* name : {"index.html", "template.html"})
    if (fs::exists(folder / name)) return folder / name;
  std::vector<fs::path> pages;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().extension() == ".html") pages.push_back(entry.path());
  return pages.size() == 1 ? std::optional(pages.front()) : std::nullopt;
}

json madeUpAd(const Request& request, const std::string& name) {
  return {{"crea",
           {{"id", "preview"},
            {"adt", request.isRewarded ? "rewarded" : "interstitial"},
            {"ctyp", request.isVideo ? "video" : "image"},
            {"adur", request.countdown},
            {"titl", name},
            {"bton", json::object()},
            {"deta", json::object()},
            {"curl", "https://landing.example/"}}},
          {"fls", json::array()}};
}

/// An ad's JSON as its authors write it: texts per language may be objects, which the contract has
/// as text; and a file needs no identifier.
json completed(json ad) {
  auto& creative = ad["crea"];
  for (const char* texts : {"bton", "deta"}) {
    if (!creative.contains(texts)) creative[texts] = json::object();
    if (creative[texts].is_object()) creative[texts] = creative[texts].dump();
  }
  if (!creative.contains("id")) creative["id"] = "preview";
  if (!ad.contains("fls")) ad["fls"] = json::array();
  int number = 0;
  for (auto& file : ad["fls"])
    if (file.is_object() && !file.contains("id")) file["id"] = std::to_string(++number);
  return ad;
}

expected<json, std::string> readAd(const fs::path& file) {
  const auto text = readFile(file);
  if (!text) return unexpected(text.error());
  auto ad = parseJson(*text);
  if (!ad) return unexpected(file.string() + ": " + ad.error().localizedDescription());
  if (!ad->is_object() || !ad->contains("crea") || !(*ad)["crea"].is_object())
    return unexpected(file.string() + ": expected an object with \"crea\"");
  return completed(*std::move(ad));
}

/// The place behind the first tag with this name; 0 if there is none.
std::size_t endOfTag(const std::string& lowercase, const std::string& name) {
  for (auto at = lowercase.find('<' + name); at != std::string::npos;
       at = lowercase.find('<' + name, at + 1)) {
    if (std::isalnum(static_cast<unsigned char>(lowercase[at + name.size() + 1]))) continue;
    return lowercase.find('>', at) + 1;
  }
  return 0;
}

/// Puts a base element where the head begins, unless there is one.
std::string withBase(const std::string& html, const std::string& base) {
  const std::string lowercase = lowercased(html);
  if (endOfTag(lowercase, "base") > 0) return html;
  const auto place = std::max(
      {endOfTag(lowercase, "head"), endOfTag(lowercase, "html"), endOfTag(lowercase, "!doctype")});
  return html.substr(0, place) + "<base href=\"" + base + "\">" + html.substr(place);
}

expected<void, std::string> readDocument(const Request& request, Creative& creative, fs::path& ad) {
  creative.name = request.what;
  if (isAddress(request.what)) {
    creative.base = request.what;
    auto html = fetch(request.what);
    if (!html) return unexpected(html.error());
    creative.html = *std::move(html);
    return {};
  }
  fs::path document = request.what;
  if (!fs::exists(document)) return unexpected("there is no " + request.what);
  if (fs::is_directory(document)) {
    const auto found = documentOf(document);
    if (!found) return unexpected("no index.html in " + request.what);
    creative.folder = fs::canonical(document);
    creative.sources = {creative.folder};
    if (ad.empty() && fs::exists(document / "ad.json")) ad = document / "ad.json";
    if (ad.empty()) creative.base = kOwnFolder;
    document = *found;
  }
  auto html = readFile(document);
  if (!html) return unexpected(html.error());
  creative.html = *std::move(html);
  creative.sources.push_back(document);
  return {};
}

}  // namespace

std::string Creative::documentAt(const std::string& origin) const {
  if (base.empty()) return html;
  return withBase(html, base == kOwnFolder ? origin + "/" : base);
}

json Creative::adAt(const std::string& origin, const std::string& bid) const {
  json complete = ad;
  complete["bid"] = bid;
  const auto resolve = [&](json& address) {
    if (!address.is_string()) return;
    const auto text = address.get<std::string>();
    if (const auto url = URL::parse(text); url && !url->scheme()) address = origin + "/" + text;
  };
  if (complete["crea"].contains("icon")) resolve(complete["crea"]["icon"]);
  for (auto& file : complete["fls"])
    if (file.is_object() && file.contains("furl")) resolve(file["furl"]);
  return complete;
}

expected<Creative, std::string> readCreative(const Request& request) {
  Creative creative;
  fs::path ad = request.ad;
  if (auto read = readDocument(request, creative, ad); !read) return unexpected(read.error());
  if (ad.empty()) {
    creative.ad = completed(madeUpAd(request, creative.name));
  } else {
    auto read = readAd(ad);
    if (!read) return unexpected(read.error());
    creative.ad = *std::move(read);
    creative.sources.push_back(ad);
    creative.folder = fs::absolute(ad).parent_path();
  }
  // The SDK's own reading says what it would refuse.
  auto complete = creative.adAt("http://127.0.0.1", kBid);
  complete["tmpl"] = "preview";
  if (const auto decoded = Ad::decode(complete); !decoded)
    return unexpected("the SDK cannot read the ad: " + decoded.error().localizedDescription());
  return creative;
}

std::vector<std::string> rewrittenEscapes(const std::string& html) {
  std::vector<std::string> found;
  std::size_t line = 1;
  for (std::size_t i = 0; i < html.size(); ++i) {
    if (html[i] == '\n') ++line;
    if (html[i] != '\\') continue;
    const auto escape = std::ranges::find_if(kUnescaped, [&](const auto& candidate) {
      return std::string_view(html).substr(i).starts_with(candidate.target);
    });
    if (escape == std::end(kUnescaped)) continue;
    found.push_back("line " + std::to_string(line) + ": " + std::string(escape->target));
    i += escape->target.size() - 1;
  }
  return found;
}

}  // namespace kva::preview
