#include <Kelvara/core/SDKHelper.h>

#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include <Kelvara/base/Json.h>
#include <Kelvara/base/Text.h>
#include <Kelvara/core/Log.h>
#include <Kelvara/core/Runtime.h>

#include <nlohmann/json.hpp>

namespace kva {
std::optional<std::map<std::string, std::string>> convertToDictionary(std::string_view text) {
  const auto json = parseJson(text);
  if (!json) {
    Log::e("convert json to dict: " + json.error().localizedDescription());
    return {};
  }
  return readJson<std::map<std::string, std::string>>(*json);
}

namespace {

const MainBundle& mainBundle() { return *Runtime::current().platform().mainBundle; }

/// Owned by the runtime.
struct MRAIDScript {
  std::optional<std::string> text;

  MRAIDScript() {
    const auto path = mraidJSFile();
    if (!path) return;
    std::ifstream file(*path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    if (file && isUTF8(contents.view())) text = std::move(contents).str();
  }
};

}  // namespace

UserDefaults& userDefaults() { return *Runtime::current().platform().userDefaults; }

std::vector<std::filesystem::path> kvaBundlePaths() {
  auto paths = mainBundle().resourceFolders();
  for (auto& path : paths) path /= std::string(kvaBundleName) + ".bundle";
  return paths;
}

std::optional<std::filesystem::path> kvaBundle() {
  for (const auto& path : kvaBundlePaths()) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) return path;
  }
  return {};
}

std::optional<std::filesystem::path> mraidJSFile() {
  const auto bundle = kvaBundle();
  std::error_code ignored;
  if (!bundle || !std::filesystem::is_regular_file(*bundle / "mraid.js", ignored)) return {};
  return *bundle / "mraid.js";
}

std::string SDKHelper::App::appVersion() {
  return mainBundle().infoString("CFBundleShortVersionString").value_or("");
}

void SDKHelper::App::expectAd() {
  const Platform& platform = Runtime::current().platform();
  if (!platform.application) return;  // a platform without views
  platform.mainQueue->async(
      [application = platform.application] { application->prepareWebView(); });
}

std::string SDKHelper::App::bundleId() { return mainBundle().bundleIdentifier().value_or(""); }

std::optional<std::string> SDKHelper::MRAID::mraidJS() {
  return Runtime::current().get<MRAIDScript>().text;
}

kva::Error SDKHelper::Error::error(KVAErrorCodes code, std::string message) {
  return error(static_cast<std::int64_t>(code), std::move(message));
}

kva::Error SDKHelper::Error::error(std::int64_t code, std::string message) {
  return {"Kelvara", code, std::move(message)};
}

}  // namespace kva
