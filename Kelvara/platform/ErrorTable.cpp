#include <Kelvara/platform/ErrorTable.h>

#include <algorithm>
#include <string>
#include <utility>

#include <Kelvara/KVAErrorCodes.h>
#include <Kelvara/platform/URLSession.h>

namespace kva {
namespace {

constexpr std::string_view kSdk = "Kelvara";

constexpr KnownError sdk(KVAErrorCodes code, std::string_view text, std::string_view hint) {
  return {kSdk, static_cast<std::int64_t>(code), text, hint};
}
constexpr KnownError server(std::int64_t code, std::string_view hint) {
  return {kSdk, code, {}, hint};
}
constexpr KnownError transport(URLError code, std::string_view text, std::string_view hint) {
  return {kURLErrorDomain, static_cast<std::int64_t>(code), text, hint};
}

constexpr std::string_view kNoPayload =
    "The server accepted the request but sent no data. Check the server with kelvara-server-check.";
constexpr std::string_view kNoNetwork =
    "Retry when the network is back. For a server on this machine set HostOptions::networkPolicy "
    "to assumeReachable.";
constexpr std::string_view kServerRefusal =
    "The ad server refused the request; its message says why. Ask whoever runs the server.";
constexpr std::string_view kPageFailure =
    "WebKit could not load the ad's page. Load the ad of a new bid. If every ad fails, see "
    "docs/troubleshooting.md.";

using enum KVAErrorCodes;

constexpr KnownError kKnownErrors[] = {
    sdk(unknown, "Unknown error.", "Start the SDK before you request a bid."),
    sdk(unknown, "No application.", kNoPayload),
    sdk(unknown, "Unknown init error.", kNoPayload),
    sdk(unknown, "Unknown register error.", kNoPayload),
    sdk(unknown, "Unknown update error.", kNoPayload),
    sdk(unknown, "Unknown bid load error.", kNoPayload),
    sdk(unknown, "Unknown template error.", kNoPayload),
    sdk(unknown, "Unknown campaign track error.", kNoPayload),
    sdk(unknown, "Unknown network error.",
        "The answer is not one of the ad server: check HostOptions::productionAPIBase, proxies and "
        "captive portals, then the server with kelvara-server-check."),
    sdk(unknown, "Unknown parse error.",
        "The server refused the request without an error record. Check the server with "
        "kelvara-server-check."),
    sdk(adNotReady, "Ad isn't ready.",
        "Show the ad after its delegate's didReceive, once for each load. If its page has ended, "
        "load the ad of a new bid."),
    sdk(adDataNotAvailable, "Ad data isn't available.", "Load the ad of a new bid."),
    sdk(sdkNotInitialized, "SDK isn't initialized.",
        "Call Kelvara::start and wait for its completion, or until Kelvara::isInitialized."),
    sdk(invalidAdUnit, "AdUnit isn't valid.", "Use the ad unit's id, which is a UUID."),
    sdk(noInternetConnection, "No internet connection.", kNoNetwork),
    sdk(noActivePlan, "No plan.",
        "Nobody bids for this ad unit at the moment. Show other content."),
    sdk(noActivePlan, "No active plan.",
        "This device has reached the frequency cap of every plan. Request a bid later."),
    sdk(invalidBidResponse, "Bid response isn't valid.",
        "Pass the bid that KVABidLoader::loadBid returned. Its identifiers are UUIDs."),
    sdk(requestTooSoon, "Wait N seconds for ad request.",
        "The last request for this ad unit failed. Request again when this time has passed."),
    sdk(bidResponseAlreadyUsed, "Bid response already used.",
        "One bid loads one ad. Request a new bid."),
    sdk(noMraidFile, "No MRAID.js file.",
        "Put KelvaraResources.bundle beside the executable (kelvara_embed_resources), or install "
        "the library with its data folder."),
    sdk(noTemplate, "No templete found.",
        "The ad's template could not be fetched; an earlier error line says why. Load the ad of a "
        "new bid. If it fails again, check the server with kelvara-server-check."),
    sdk(invalidHtmlData, "HTML data isn't valid.",
        "The ad's template is empty. Publish a version with a document at the server."),
    sdk(adAlreadyShown, "Ad is already shown.",
        "Wait for didDismiss, then load the ad of a new bid."),
    sdk(adAlreadyShown, "No internet connection.", kNoNetwork),
    sdk(adAlreadyShown, "No window.", "Show the ad from a window that exists."),
    sdk(invalidAppId, "App id isn't valid.", "Use the application's id, which is a UUID."),

    server(400,
           "The server rejected the request as malformed. Check it with kelvara-server-check."),
    server(404,
           "The server does not know the application, the ad unit or the user. The SDK registers a "
           "new user by itself; check the two other ids, then request a new bid."),
    server(500, "The server failed. Retry later."),

    transport(URLError::unknown, "The request failed.", "Retry later."),
    transport(URLError::cancelled, "The request was cancelled.",
              "The gtk::Host is being destroyed. Nothing is left to do."),
    transport(URLError::badURL, "The address is not valid.",
              "Check HostOptions::productionAPIBase and sandboxAPIBase."),
    transport(URLError::timedOut, "The request timed out.",
              "Retry later. If it happens on a good network, check the server."),
    transport(URLError::timedOut, "The page has not loaded in time.",
              "Load the ad of a new bid. If it happens again, check the creative: a video creative "
              "must call kelvara.preloadComplete()."),
    transport(URLError::unsupportedURL, "The address is of a kind that is not supported.",
              "Use http or https. A redirect must not lead from https to http."),
    transport(URLError::cannotFindHost, "A server with the specified host name could not be found.",
              "Check the server's name and the DNS settings."),
    transport(URLError::cannotConnectToHost, "Could not connect to the server.",
              "Check that the server runs, its address and port, and firewalls."),
    transport(URLError::networkConnectionLost, "The network connection was lost.", "Retry."),
    transport(URLError::dnsLookupFailed, "The host name could not be looked up.",
              "Check the server's name and the DNS settings."),
    transport(URLError::httpTooManyRedirects, "The server redirected too many times.",
              "Check the server's redirects."),
    transport(URLError::notConnectedToInternet, "There is no connection to the Internet.",
              "Retry when the network is back."),
    transport(URLError::badServerResponse, "The server's answer is not HTTP.",
              "Check the server's address and port."),
    transport(URLError::cannotDecodeContentData, "The server's answer could not be decoded.",
              "Check the server's compression, and that answers are below 64 MiB."),
    transport(URLError::secureConnectionFailed, "A secure connection could not be made.",
              "Check the server's TLS settings and the system's clock."),
    transport(URLError::serverCertificateUntrusted, "The server's certificate is not trusted.",
              "Install ca-certificates, or the authority that issued the server's certificate; "
              "check the system's clock."),

    {"WebKitNetworkError", 399, "The web content process terminated.",
     "Load the ad of a new bid. If every ad fails, WebKit cannot start its processes: see "
     "docs/troubleshooting.md."},
};

/// The part of a known text before its number, or all of it.
std::string_view fixedPart(std::string_view text) { return text.substr(0, text.find("N ")); }

}  // namespace

std::span<const KnownError> knownErrors() { return kKnownErrors; }

Error errorWithRemedy(std::string_view domain, std::int64_t code, std::string_view text) {
  const auto* known = std::ranges::find_if(kKnownErrors, [&](const KnownError& each) {
    return each.domain == domain && each.code == code && each.text.starts_with(text);
  });
  std::string description(text);
  if (known != std::end(kKnownErrors))
    description = std::string(known->text) + " " + std::string(known->hint);
  return {std::string(domain), code, std::move(description)};
}

std::string_view Error::hint() const {
  const std::string_view text = localizedDescription_;
  for (const auto& known : kKnownErrors) {
    if (known.domain != domain_ || known.code != code_ || !text.starts_with(fixedPart(known.text)))
      continue;
    return text.ends_with(known.hint) ? std::string_view() : known.hint;
  }
  return domain_ == kSdk ? kServerRefusal : kPageFailure;
}

}  // namespace kva
