#include <platform/headless/Device.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <Kelvara/base/Fatal.h>

namespace kva::headless {

/// Changes the store, under its lock.
class MemoryUserDefaults::Edit final : public EditedValues {
 public:
  Edit(Store& store, int& ownWrites) : store_(store), ownWrites_(ownWrites) {}

  std::optional<Value> value(std::string_view key) const override {
    auto found = store_.values.find(key);
    if (found == store_.values.end()) return std::nullopt;
    return found->second;
  }
  void set(std::string_view key, Value value) override {
    ++store_.writes, ++ownWrites_;
    store_.values.insert_or_assign(std::string(key), std::move(value));
  }
  void remove(std::string_view key) override {
    ++store_.writes, ++ownWrites_;
    if (auto found = store_.values.find(key); found != store_.values.end())
      store_.values.erase(found);
  }
  void setPart(std::string_view key, const std::string& name,
               const std::optional<std::string>& text) override {
    ++store_.writes, ++ownWrites_;
    std::get<JsonParts>(store_.values.find(key)->second).set(name, text);
  }
  std::uint64_t foreignChanges() const override {
    return static_cast<std::uint64_t>(store_.writes - ownWrites_);
  }

 private:
  Store& store_;
  int& ownWrites_;
};

std::optional<UserDefaults::Value> MemoryUserDefaults::value(std::string_view key) const {
  return store_->with([&](const Store& store) -> std::optional<Value> {
    auto found = store.values.find(key);
    if (found == store.values.end()) return std::nullopt;
    return found->second;
  });
}

void MemoryUserDefaults::set(std::string_view key, Value value) {
  store_->with([&](Store& store) { Edit(store, ownWrites_).set(key, std::move(value)); });
}

void MemoryUserDefaults::remove(std::string_view key) {
  store_->with([&](Store& store) { Edit(store, ownWrites_).remove(key); });
}

std::uint64_t MemoryUserDefaults::foreignChanges() const {
  return store_->with(
      [&](const Store& store) { return static_cast<std::uint64_t>(store.writes - ownWrites_); });
}

bool MemoryUserDefaults::edit(const std::function<void(EditedValues&)>& change) {
  return store_->with([&](Store& store) {
    if (store.isBusy) return false;
    Edit edit(store, ownWrites_);
    change(edit);
    return true;
  });
}

UserDefaults::Claim MemoryUserDefaults::claim(Task task) {
  if (!store_->with([&](Store& store) { return store.claims.insert(task).second; })) return nullptr;
  const auto release = [store = store_, task](void*) {
    store->with([&](Store& held) { held.claims.erase(task); });
  };
  return Claim(static_cast<void*>(this), release);
}

int MemoryUserDefaults::writes() const {
  return store_->with([](const Store& store) { return store.writes; });
}

void MemoryUserDefaults::setBusy(bool isBusy) {
  store_->with([&](Store& store) { store.isBusy = isBusy; });
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
