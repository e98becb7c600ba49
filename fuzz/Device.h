#pragma once

#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <platform/headless/Headless.h>

namespace kva::fuzz {

inline constexpr const char* kAppId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

/// A headless device with the SDK's resources and a server that answers every call with success.
class Device : public headless::Headless {
 public:
  Device() {
    static headless::HeadlessMainBundle bundle;
    static const bool isEmbedded = (bundle.embedResources(KELVARA_RESOURCES), true);
    (void)isEmbedded;
    mainBundle.setPath(bundle.resourceFolders().front());
    const auto serve = [&](const char* path, const char* data) {
      server.reply(path, headless::envelope(data));
    };
    serve("/init", R"({"aid": "a", "pp": "https://host.test/privacy", "hasc": true,
        "tmpv": {"template": 3}, "sett": {"dip": 400, "nfsp": 3000, "sndm": false}})");
    serve("/register", R"({"uid": "5a0c6b1d-2e3f-4f6e-8a0e-0b6f3f0e1d6c"})");
    serve("/update", R"({"uid": "5a0c6b1d-2e3f-4f6e-8a0e-0b6f3f0e1d6c"})");
    serve("/track", R"({"plan": "plan"})");
    serve("/bid/init",
          R"({"bid": "bid", "plans": [{"plan": "plan", "capd": 9, "caph": 9, "ecpm": 1500}]})");
    serve("/bid/stats", "null");
    serve("/template",
          R"({"tmpl": "template", "adt": "rewarded", "html": "<html></html>", "tver": 3})");
  }
};

/// A started SDK on the device.
class Process {
 public:
  explicit Process(Device& device) : runtime_(device.platform()) {
    Kelvara::start(kAppId, [](std::optional<Error>) {});
    device.time.run();
  }

 private:
  Runtime runtime_;
};

}  // namespace kva::fuzz
