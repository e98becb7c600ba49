// The time of a bid by the SDK and by bare libcurl, on one keep-alive connection over loopback.
#include <ctime>
#include <filesystem>

#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Runtime.h>

#include "bench/Loopback.h"
#include "bench/Row.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ProcessOutput.h"
#include "platform/linux/Threads.h"

namespace kva {
namespace {

constexpr int kRounds = 200;
constexpr int kBidsInARound = 200;

double threadMicroseconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

void bid(std::move_only_function<void()> done) {
  auto shared = std::make_shared<std::move_only_function<void()>>(std::move(done));
  KVABidLoader::loadBid(bench::kAdUnit, KVABidType::interstitial,
                        [shared](std::shared_ptr<KVABidResponse>, std::optional<Error> error) {
                          if (error) fatal("a bid failed: " + error->localizedDescription());
                          (*shared)();
                        });
}

/// Of one bid in each round, in microseconds.
struct Times {
  bench::Series p50, p99, processor;

  void add(const bench::Series& clock, double processorOfARound) {
    p50.add(clock.median());
    p99.add(clock.at(0.99));
    processor.add(processorOfARound / kBidsInARound);
  }
};

/// Bids, each requested in the completion of the last.
void chain(Times& times) {
  bench::Series clock;
  Semaphore finished;
  int left = kBidsInARound;
  double processorBegan = 0;
  std::chrono::steady_clock::time_point began;
  std::function<void()> next = [&] {
    began = std::chrono::steady_clock::now();
    bid([&] {
      const std::chrono::duration<double, std::micro> taken =
          std::chrono::steady_clock::now() - began;
      clock.add(taken.count());
      if (--left > 0) return next();
      times.add(clock, threadMicroseconds() - processorBegan);
      finished.release();
    });
  };
  bid([&] {  // the first bid moves the chain to the session's thread
    processorBegan = threadMicroseconds();
    next();
  });
  finished.acquire();
}

/// The same with bare libcurl on the calling thread.
void chainBare(Times& times, bench::BareRequest& bare) {
  bench::Series clock;
  const double processorBegan = threadMicroseconds();
  for (int i = 0; i < kBidsInARound; ++i) clock.time([&] { bare.perform(); });
  times.add(clock, threadMicroseconds() - processorBegan);
}

void bidAndWait() {
  Semaphore answered;
  bid([&] { answered.release(); });
  answered.acquire();
}

void measure(const bench::FixedServer& server) {
  bidAndWait();  // registers
  bench::BareRequest bare(server.base(), server.lastRequest("/bid/init"));
  bench::BareThread bareThread;
  Times ours, floor;
  bench::Series awaited, awaitedBare;
  // In turns, so that other load on the machine affects all alike.
  for (int round = 0; round < kRounds; ++round) {
    chainBare(floor, bare);
    chain(ours);
    for (int i = 0; i < kBidsInARound; ++i) awaitedBare.time([&] { bareThread.perform(bare); });
    for (int i = 0; i < kBidsInARound; ++i) awaited.time(bidAndWait);
  }
  using bench::printRow;
  const std::string chained = "loadBid from a completion, ";
  printRow(chained + "p50", "us", ours.p50, floor.p50, {.ratio = 1.3});
  printRow(chained + "p99", "us", ours.p99, floor.p99, {.ratio = 1.5});
  printRow(chained + "processor time", "us", ours.processor, floor.processor, {.ratio = 1.5});
  printRow("loadBid awaited by another thread, p50", "us", awaited, awaitedBare, {.ratio = 1.1});
}

}  // namespace
}  // namespace kva

int main() {
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-bench-transport";
  std::filesystem::remove_all(folder);
  const kva::bench::FixedServer server(kva::bench::typicalAnswers());
  kva::LinuxOptions options;
  options.bundleId = "org.kelvara.bench";
  options.userDefaults = folder / "defaults.sqlite";
  options.apiBases = {.production = server.base(), .sandbox = server.base()};
  options.reachability = kva::ReachabilityPolicy::assumeReachable;
  options.logOutput =
      std::make_shared<kva::CallbackOutput>([](kva::LogLevel, const std::string&) {});
  {
    kva::Runtime runtime(kva::makeLinuxPlatform(options).ports);
    kva::Semaphore started;
    kva::Kelvara::start(kva::bench::kAppId, [&](auto error) {
      if (error) kva::fatal("the start failed: " + error->localizedDescription());
      started.release();
    });
    started.acquire();
    kva::measure(server);
  }
  std::filesystem::remove_all(folder);
}
