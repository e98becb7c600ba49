#pragma once

#include <filesystem>
#include <iostream>
#include <string>

#include <unistd.h>

#include <Kelvara/ads/FrequencyCappingManager.h>
#include <Kelvara/core/Runtime.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/reporting/ReportManager.h>

#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/SqliteDefaults.h"

namespace kva::bench {

inline std::string identifier(int number) {
  std::string digits = std::to_string(number);
  return "b1d00000-0000-4000-8000-" + digits.insert(0, 12 - digits.size(), '0');
}

/// A folder for the files of one program.
class Folder {
 public:
  Folder() { std::filesystem::create_directories(path_); }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::filesystem::path file(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("kelvara-bench-" + std::to_string(getpid()));
};

inline void complain(const std::string& line) { std::cerr << line << '\n'; }

/// Stores `count` live reports and `count` plans that were shown once.
inline void fillStore(const std::filesystem::path& file, int count) {
  using Keys = SDKHelper::UserDefaultKeys;
  SqliteDefaults defaults(file, complain);
  const std::string now = std::to_string(std::time(nullptr));
  JsonParts reports{JsonParts::Kind::object, {}}, plans{JsonParts::Kind::array, {}};
  for (int i = 0; i < count; ++i) {
    reports.set(identifier(i),
                R"({"bidId":")" + identifier(i) + R"(","createdAt":)" + now +
                    R"(,"impressionAt":0,"isClicked":false,"isCompleted":false,)"
                    R"("isDismissed":false,"isFailToShow":false,"isShown":false,"quarter":0})");
    plans.set(JsonParts::nameOf(static_cast<std::uint64_t>(i)),
              R"({"dailyImpressionCount":1,"hourlyImpressionCount":1,"lastDailyImpressionAt":)" +
                  now + R"(,"lastHourlyImpressionAt":)" + now + R"(,"planId":")" + identifier(i) +
                  R"("})");
  }
  if (count <= 1000) defaults.set(Keys::reports, std::move(reports));
  defaults.set(Keys::frequencyCappingMembers, std::move(plans));
}

/// A launch of an application over a store.
class Launch {
 public:
  explicit Launch(const std::filesystem::path& file)
      : runtime_(makeLinuxPlatform(on(file)).ports) {}

 private:
  static LinuxOptions on(const std::filesystem::path& file) {
    LinuxOptions options;
    options.bundleId = "org.kelvara.bench";
    options.userDefaults = file;
    return options;
  }
  Runtime runtime_;
};

}  // namespace kva::bench
