// The time to track an action and to check a plan's frequency caps, by the number of stored items.
#include <filesystem>
#include <string>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/reporting/ReportStore.h>

#include "bench/measure.h"
#include "platform/linux/LinuxPlatform.h"

namespace kva {
namespace {

std::string identifier(int number) {
  std::string digits = std::to_string(number);
  return "b1d00000-0000-4000-8000-" + digits.insert(0, 12 - digits.size(), '0');
}

void measureReports() {
  ReportStore reports(Runtime::current().platform().userDefaults,
                      SDKHelper::UserDefaultKeys::reports);
  int stored = 0;
  for (const int count : {1, 100, 1000}) {
    for (; stored < count; ++stored) reports.set({.bidId = identifier(stored), .createdAt = 1.5});
    reports.persist();
    const std::string name = "track an action, reports: " + std::to_string(count);
    bench::Series series(name.c_str());
    for (int i = 1; i <= 2000; ++i) {
      series.measure([&] {
        BidReport report = *reports.find(identifier(i % count));
        report.quarter = i;
        reports.set(std::move(report));
        reports.persist();
      });
    }
    series.print();
  }
}

void measureCaps() {
  auto& caps = FrequencyCappingManager::shared();
  bench::Series first("pass a new plan, the first 1,000"), last("pass a new plan, after 9,000"),
      shown("count an impression after 10,000 plans");
  for (int i = 0; i < 10'000; ++i) {
    const auto pass = [&] { caps.shouldShow({identifier(i), 3, 3}); };
    if (i < 1000)
      first.measure(pass);
    else if (i >= 9000)
      last.measure(pass);
    else
      pass();
  }
  for (int i = 0; i < 200; ++i) shown.measure([&] { caps.trackImpression(identifier(i)); });
  for (auto* series : {&first, &last, &shown}) series->print();
}

}  // namespace
}  // namespace kva

int main() {
  const auto folder = std::filesystem::temp_directory_path() / "kelvara-bench-tracking";
  std::filesystem::remove_all(folder);
  {
    kva::LinuxOptions options;
    options.bundleId = "org.kelvara.bench";
    options.userDefaults = folder / "defaults.sqlite";
    kva::Runtime runtime(kva::makeLinuxPlatform(options).ports);
    kva::measureReports();
    kva::measureCaps();
  }
  std::filesystem::remove_all(folder);
}
