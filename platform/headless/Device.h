#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <Kelvara/base/Guarded.h>
#include <Kelvara/platform/DeviceInfo.h>
#include <Kelvara/platform/Locale.h>
#include <Kelvara/platform/LogOutput.h>
#include <Kelvara/platform/MainBundle.h>
#include <Kelvara/platform/UserDefaults.h>

// A device and a host application whose facts a test sets. Thread-safe, including the setters.
namespace kva::headless {

/// Copies share one store, like two processes of an application.
class MemoryUserDefaults final : public UserDefaults {
 public:
  std::optional<Value> value(std::string_view key) const override;
  void set(std::string_view key, Value value) override;
  void remove(std::string_view key) override;
  std::uint64_t foreignChanges() const override;
  bool edit(const std::function<void(EditedValues&)>& change) override;
  Claim claim(Task task) override;

  /// The number of calls that set or removed a value.
  int writes() const;
  /// While true, edits fail as if another process held the store.
  void setBusy(bool isBusy);

 private:
  class Edit;
  struct Store {
    std::map<std::string, Value, std::less<>> values;
    std::set<Task> claims;
    int writes = 0;
    bool isBusy = false;
  };
  std::shared_ptr<Guarded<Store>> store_ = std::make_shared<Guarded<Store>>();
  int ownWrites_ = 0;  ///< guarded by the store's lock
};

class HeadlessOutput final : public LogOutput {
 public:
  void print(LogLevel level, std::string_view text) override;
  std::vector<std::string> lines() const { return lines_.get(); }
  /// The number of lines that contain `text`.
  int count(std::string_view text) const;
  void clear() { lines_.set({}); }

 private:
  Guarded<std::vector<std::string>> lines_;
};

struct LocaleFacts {
  std::vector<std::string> preferredLanguages{"en-US"};
  std::optional<std::string> countryCode = "US";
  std::optional<std::string> languageCode = "en";
  std::optional<std::string> timeZoneAbbreviation = "UTC";
};

class HeadlessLocale final : public Locale {
 public:
  void set(LocaleFacts facts) { facts_.set(std::move(facts)); }

  std::vector<std::string> preferredLanguages() const override {
    return facts_.get().preferredLanguages;
  }
  std::optional<std::string> countryCode() const override { return facts_.get().countryCode; }
  std::optional<std::string> languageCode() const override { return facts_.get().languageCode; }
  std::optional<std::string> timeZoneAbbreviation() const override {
    return facts_.get().timeZoneAbbreviation;
  }

 private:
  Guarded<LocaleFacts> facts_;
};

class HeadlessDevice final : public DeviceInfo {
 public:
  void setSystemVersion(std::string version) { systemVersion_.set(std::move(version)); }
  void setMachine(std::string machine) { machine_.set(std::move(machine)); }
  /// Posts the notification through the main queue.
  void setOrientation(DeviceOrientation orientation);
  /// Sets the callback that posts the notification; `Headless` calls it.
  void connect(std::function<void()> postChange) { postChange_.set(std::move(postChange)); }

  std::string systemVersion() const override { return systemVersion_.get(); }
  std::string machine() const override { return machine_.get(); }
  DeviceOrientation orientation() const override { return orientation_.get(); }

 private:
  Guarded<std::string> systemVersion_{"6.1.0"};
  Guarded<std::string> machine_{"x86_64"};
  Guarded<DeviceOrientation> orientation_{DeviceOrientation::portrait};
  Guarded<std::function<void()>> postChange_;
};

/// Has no cellular service until `set`.
class HeadlessTelephony final : public Telephony {
 public:
  void set(std::optional<RadioAccessTechnology> technology, std::optional<std::string> carrier) {
    technology_.set(technology);
    carrier_.set(std::move(carrier));
  }
  std::optional<RadioAccessTechnology> currentRadioAccessTechnology() const override {
    return technology_.get();
  }
  std::optional<std::string> carrierName() const override { return carrier_.get(); }

 private:
  Guarded<std::optional<RadioAccessTechnology>> technology_;
  Guarded<std::optional<std::string>> carrier_;
};

struct IdentifierFacts {
  std::string advertisingIdentifier = "00000000-0000-0000-0000-000000000000";
  std::optional<IdentifierManager::AuthorizationStatus> trackingAuthorizationStatus =
      IdentifierManager::AuthorizationStatus::notDetermined;
  bool isAdvertisingTrackingEnabled = false;
};

/// The identifier is withheld until it is set.
class HeadlessIdentifiers final : public IdentifierManager {
 public:
  void set(IdentifierFacts facts) { facts_.set(std::move(facts)); }
  /// Sets an identifier that the user has authorized.
  void authorize(std::string identifier) {
    facts_.set({std::move(identifier), AuthorizationStatus::authorized, true});
  }

  std::string advertisingIdentifier() const override { return facts_.get().advertisingIdentifier; }
  std::optional<AuthorizationStatus> trackingAuthorizationStatus() const override {
    return facts_.get().trackingAuthorizationStatus;
  }
  bool isAdvertisingTrackingEnabled() const override {
    return facts_.get().isAdvertisingTrackingEnabled;
  }

 private:
  Guarded<IdentifierFacts> facts_;
};

/// Has no resources until `embedResources`.
class HeadlessMainBundle final : public MainBundle {
 public:
  HeadlessMainBundle() = default;
  ~HeadlessMainBundle() override;
  HeadlessMainBundle(const HeadlessMainBundle&) = delete;
  HeadlessMainBundle& operator=(const HeadlessMainBundle&) = delete;

  void setPath(std::filesystem::path path) { path_.set(std::move(path)); }
  /// Sets the path to a new temporary folder, in which "KelvaraResources.bundle" links to
  /// `resources`. The destructor removes the folder.
  void embedResources(const std::filesystem::path& resources);
  void setInfoString(const std::string& key, std::optional<std::string> value);

  std::vector<std::filesystem::path> resourceFolders() const override { return {path_.get()}; }
  std::optional<std::string> bundleIdentifier() const override { return "org.example.host"; }
  std::optional<std::string> infoString(const std::string& key) const override;

 private:
  Guarded<std::filesystem::path> path_{"/nonexistent"};
  Guarded<std::vector<std::filesystem::path>> temporary_;
  Guarded<std::map<std::string, std::string>> info_{{{"CFBundleShortVersionString", "3.2.1"}}};
};

}  // namespace kva::headless
