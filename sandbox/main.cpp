#include <signal.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#include "sandbox/ExchangeLog.h"
#include "sandbox/ReadInteger.h"
#include "sandbox/Server.h"

namespace {

using namespace kva::sandbox;

constexpr std::string_view kHelp = R"(Usage: kelvara-sandbox [OPTION]...

A Kelvara ad server to develop and test against: all endpoints, checked requests, creatives of
its own, and faults on demand. Its front page lists what can be asked of it while it runs.

  --port N             port to listen on, 0 for a free one      (8000)
  --listen ADDRESS     address to listen on                     (127.0.0.1)
  --database FILE      where to keep users, bids and reports    (in memory)
  --data FOLDER        templates and creatives                  (sandbox-data beside the program)
  --skew MS            let the server's clock be wrong by this
  --scenario E=S       let endpoint E ("/bid/init", or "*" for all) behave as S; repeatable
  --quiet              do not print the exchanges
  --help               print this and exit

Scenarios, each with ",delay:MS" or ",times:N" after it where wanted:
  normal  no-fill  error[:CODE[:MESSAGE]]  not-ok  missing:KEY  wrong-type:KEY
  replace:KEY:VALUE  malformed  truncated  empty  http-500  reset  hang

  kelvara-sandbox --port 0 --scenario /bid/init=no-fill,times:2 --scenario '*=normal,delay:250'
)";

struct CommandLine {
  Options options{.port = 8000};
  bool quiet = false, help = false;
};

expected<void, std::string> setOption(Options& options, std::string_view option,
                                      std::string_view value) {
  auto amount = readInteger(value);
  if (option == "--port" && amount && *amount >= 0 && *amount <= 65535) {
    options.port = static_cast<int>(*amount);
  } else if (option == "--skew" && amount) {
    options.clockSkew = std::chrono::milliseconds(*amount);
  } else if (option == "--listen") {
    options.listen = value;
  } else if (option == "--database") {
    options.database = value;
  } else if (option == "--data") {
    options.data = value;
  } else if (option == "--scenario" && value.contains('=')) {
    auto equals = value.find('=');
    auto scenario = Scenario::parse(value.substr(equals + 1));
    if (!scenario) return unexpected(scenario.error());
    options.scenarios.emplace_back(value.substr(0, equals), *scenario);
  } else {
    return unexpected(std::string(option) + " " + std::string(value) + ": not understood");
  }
  return {};
}

expected<CommandLine, std::string> parse(int count, char** arguments) {
  CommandLine line;
  for (int i = 1; i < count; ++i) {
    std::string_view option = arguments[i];
    if (option == "--help") {
      line.help = true;
    } else if (option == "--quiet") {
      line.quiet = true;
    } else if (i + 1 == count) {
      return unexpected(std::string(option) + ": not understood");
    } else if (auto set = setOption(line.options, option, arguments[++i]); !set) {
      return unexpected(set.error());
    }
  }
  return line;
}

}  // namespace

int main(int count, char** arguments) {
  auto line = parse(count, arguments);
  if (!line) {
    std::cerr << "kelvara-sandbox: " << line.error() << "\nTry --help.\n";
    return 2;
  }
  if (line->help) {
    std::cout << kHelp;
    return 0;
  }
  if (!line->quiet) {
    line->options.onExchange = [](const Exchange& exchange) {
      std::cout << plainText({exchange}) << std::flush;
    };
  }
  // Blocked before any thread begins, so that only sigwait() below ever sees them.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGINT);
  sigaddset(&endings, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);

  Server server(std::move(line->options));
  if (auto started = server.start(); !started) {
    std::cerr << "kelvara-sandbox: " << started.error() << "\n";
    return 1;
  }
  std::cout << "kelvara-sandbox: serving " << server.baseURL() << std::endl;
  int signal = 0;
  sigwait(&endings, &signal);
  server.stop();
  std::cout << "kelvara-sandbox: stopped" << std::endl;
  return 0;
}
