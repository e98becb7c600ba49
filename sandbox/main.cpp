#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "sandbox/Catalogue.h"
#include "sandbox/ExchangeLog.h"
#include "sandbox/Server.h"

namespace {

using namespace kva::sandbox;

constexpr const char* kAbout =
    "An ad server to develop and test against: every endpoint, checked requests, its own "
    "creatives, and faults on demand. Its console is at the address that it prints.";

constexpr const char* kScenarios = R"(
Scenarios, each with ",delay:MS" or ",times:N" after it where needed:
  normal  no-fill  error[:CODE[:MESSAGE]]  not-ok  missing:KEY  wrong-type:KEY
  replace:KEY:VALUE  malformed  empty  http-500  reset  hang
  throttled  truncated  cut-head  reset-body  garbage-before  garbage-within
  repeated-bytes  repeated-answer

  kelvara-sandbox --port 0 --scenario /bid/init=no-fill,times:2 --scenario '*=normal,delay:250'
)";

/// The identifiers for a host, and the scenarios.
std::string footer() {
  std::string text = "Application: " + std::string(kApplicationId) + "\nAd units:\n";
  for (const CatalogueAdUnit& unit : adUnits()) {
    text += "  " + std::string(unit.id) + "  " + std::string(unit.adType) + ", " +
            std::string(unit.creative->id) + "\n";
  }
  return text + kScenarios;
}

/// The server keeps its users here between runs; in memory if there is no home folder.
std::string defaultDatabase() {
  const char* data = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  if (!(data && *data) && !(home && *home)) return ":memory:";
  const std::filesystem::path folder =
      data && *data ? std::filesystem::path(data) : std::filesystem::path(home) / ".local/share";
  return folder / "kelvara-sandbox" / "sandbox.sqlite";
}

void addScenario(Options& options, const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos) {
    throw CLI::ValidationError("--scenario", "expected ENDPOINT=SCENARIO, got \"" + text + "\"");
  }
  auto scenario = Scenario::parse(text.substr(equals + 1));
  if (!scenario) throw CLI::ValidationError("--scenario", scenario.error());
  options.scenarios.emplace_back(text.substr(0, equals), *scenario);
}

}  // namespace

int main(int count, char** arguments) {
  Options options{.port = 8000};
  bool isQuiet = false, isForgetful = false;
  options.database = defaultDatabase();

  CLI::App app{kAbout};
  app.set_version_flag("--version", std::string("kelvara-sandbox ") + KELVARA_VERSION);
  app.footer(footer());
  app.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--listen", options.listen, "Address to listen on")->capture_default_str();
  auto* database =
      app.add_option("--database", options.database, "File for users, bids and reports")
          ->capture_default_str();
  app.add_flag("--memory", isForgetful, "Keep users, bids and reports in memory only")
      ->excludes(database);
  app.add_option("--data", options.data, "Folder of templates and creatives")
      ->default_str("../share/kelvara/sandbox");
  app.add_option_function<std::int64_t>(
         "--skew", [&](std::int64_t skew) { options.clockSkew = std::chrono::milliseconds(skew); },
         "Error of the server's clock")
      ->option_text("MS");
  app.add_option_function<std::vector<std::string>>(
         "--scenario",
         [&](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) addScenario(options, text);
         },
         "Behaviour of an endpoint, or of all (\"*\")")
      ->option_text("ENDPOINT=SCENARIO ...");
  app.add_flag("--quiet", isQuiet, "Do not print the exchanges");
  CLI11_PARSE(app, count, arguments);
  if (isForgetful) options.database = ":memory:";

  if (!isQuiet) {
    options.onExchange = [](const Exchange& exchange) {
      std::cout << plainText({exchange}) << std::flush;
    };
  }
  // Block them before any thread starts, so only sigwait() below receives them.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGINT);
  sigaddset(&endings, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);

  Server server(std::move(options));
  if (auto started = server.start(); !started) {
    std::cerr << "kelvara-sandbox: " << started.error() << "\n";
    return 1;
  }
  std::cout << "kelvara-sandbox: serving " << server.baseURL() << ", console at " << server.origin()
            << "/" << std::endl;
  int signal = 0;
  sigwait(&endings, &signal);
  server.stop();
  std::cout << "kelvara-sandbox: stopped" << std::endl;
  return 0;
}
