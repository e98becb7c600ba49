#include <platform/headless/Device.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <Kelvara/base/Fatal.h>

namespace kva::headless {

std::optional<UserDefaults::Value> MemoryUserDefaults::value(std::string_view key) const {
  return store_->with([&](const Store& store) -> std::optional<Value> {
    auto found = store.values.find(key);
    if (found == store.values.end()) return std::nullopt;
    return found->second;
  });
}

void MemoryUserDefaults::set(std::string_view key, Value value) {
  store_->with([&](Store& store) {
    ++store.writes;
    store.values.insert_or_assign(std::string(key), std::move(value));
  });
}

void MemoryUserDefaults::remove(std::string_view key) {
  store_->with([&](Store& store) {
    ++store.writes;
    if (auto found = store.values.find(key); found != store.values.end()) store.values.erase(found);
  });
}

int MemoryUserDefaults::writes() const {
  return store_->with([](const Store& store) { return store.writes; });
}

void HeadlessOutput::print(LogLevel, std::string_view text) {
  lines_.with([&](auto& lines) { lines.emplace_back(text); });
}

int HeadlessOutput::count(std::string_view text) const {
  return lines_.with([&](const auto& lines) {
    return static_cast<int>(std::ranges::count_if(
        lines, [&](const std::string& line) { return line.find(text) != std::string::npos; }));
  });
}

void HeadlessDevice::setOrientation(DeviceOrientation orientation) {
  orientation_.set(orientation);
  if (auto post = postChange_.get()) post();
}

HeadlessMainBundle::~HeadlessMainBundle() {
  std::error_code ignored;
  for (const auto& folder : temporary_.get()) std::filesystem::remove_all(folder, ignored);
}

void HeadlessMainBundle::embedResources(const std::filesystem::path& resources) {
  std::error_code error;
  auto pattern = (std::filesystem::temp_directory_path(error) / "kelvara-bundle-XXXXXX").string();
  if (!mkdtemp(pattern.data())) fatal("no temporary folder for the main bundle");
  const std::filesystem::path folder = pattern;
  temporary_.with([&](auto& all) { all.push_back(folder); });
  std::filesystem::create_directory_symlink(std::filesystem::absolute(resources, error),
                                            folder / "KelvaraResources.bundle", error);
  if (error) fatal("no link to the resources in " + folder.string() + ": " + error.message());
  path_.set(folder);
}

void HeadlessMainBundle::setInfoString(const std::string& key, std::optional<std::string> value) {
  info_.with([&](auto& info) {
    info.erase(key);
    if (value) info.emplace(key, *std::move(value));
  });
}

std::optional<std::string> HeadlessMainBundle::infoString(const std::string& key) const {
  return info_.with([&](const auto& info) -> std::optional<std::string> {
    auto found = info.find(key);
    if (found == info.end()) return std::nullopt;
    return found->second;
  });
}

}  // namespace kva::headless
