#include <Kelvara/base/URL.h>
#include <CLI/CLI.hpp>
#include <iostream>

#include "sandbox/Catalogue.h"
#include "server-check/ServerCheck.h"

namespace {

constexpr const char* kAbout =
    "Runs a new installation of the SDK against an ad server and prints each breach of the "
    "contract. By default it uses the identifiers of the sandbox. The exit status is 0 if the "
    "server "
    "passes every step, otherwise 1.";

void print(const kva::check::Step& step) {
  std::cout << (step.findings.empty() ? "ok    " : "FAIL  ") << step.call << ": " << step.name
            << "\n";
  for (const auto& finding : step.findings) {
    std::cout << "      " << (finding.call == step.call ? "" : finding.call + " ")
              << finding.problem << "\n      Contract: " << finding.sentence << "\n";
  }
  std::cout << std::flush;
}

/// The base of the API: appends the common path to a server's address.
std::string baseOf(std::string address) {
  while (address.ends_with('/')) address.pop_back();
  return address.ends_with("/api/v1") ? address : address + "/api/v1";
}

}  // namespace

int main(int count, char** arguments) {
  kva::check::Options options{.baseURL = {},
                              .application = std::string(kva::sandbox::kApplicationId),
                              .interstitial = std::string(kva::sandbox::kInterstitialAdUnit),
                              .rewarded = std::string(kva::sandbox::kRewardedAdUnit)};
  CLI::App app{kAbout};
  app.set_version_flag("--version", std::string("kelvara-server-check ") + KELVARA_VERSION);
  app.add_option("URL", options.baseURL, "Address of the server, such as http://127.0.0.1:8000")
      ->required()
      ->check([](const std::string& text) -> std::string {
        const auto url = kva::URL::parse(text);
        return url && url->scheme() && url->host() ? "" : "expected an address with http://";
      });
  app.add_option("--application", options.application, "Application id")->capture_default_str();
  app.add_option("--interstitial", options.interstitial, "Ad unit of interstitials, with demand")
      ->capture_default_str();
  app.add_option("--rewarded", options.rewarded, "Ad unit of rewarded ads, with demand")
      ->capture_default_str();
  app.add_option("--no-fill", options.unitWithoutDemand,
                 "Ad unit of interstitials, without demand");
  app.add_option("--timeout", options.timeoutSeconds, "Seconds to wait for an answer")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  CLI11_PARSE(app, count, arguments);
  options.baseURL = baseOf(options.baseURL);

  const auto steps = kva::check::checkServer(options, print);
  const auto bad = std::count_if(steps.begin(), steps.end(),
                                 [](const auto& step) { return !step.findings.empty(); });
  std::cout << (bad == 0 ? "The server passed all " : std::to_string(bad) + " failed of ")
            << steps.size() << " steps.\n";
  if (options.unitWithoutDemand.empty()) {
    std::cout << "Not checked: no fill. Give an ad unit without demand with --no-fill.\n";
  }
  return bad == 0 ? 0 : 1;
}
