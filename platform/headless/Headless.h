#pragma once

#include <memory>

#include <Kelvara/platform/Platform.h>
#include <platform/headless/Application.h>
#include <platform/headless/Device.h>
#include <platform/headless/Queues.h>
#include <platform/headless/Reachability.h>
#include <platform/headless/Server.h>
#include <platform/headless/VirtualTime.h>

namespace kva::headless {

/// A whole device in memory: all ports of the SDK, and the controls with which a test drives them.
///
///     Headless h;
///     Runtime runtime(h.platform());
///     h.server.reply("/init", envelope(R"({...})"), 0.2);
///     ... h.time.advance(1);
///
/// It must outlive the runtimes that use it. After a runtime has invalidated its session, the next
/// `platform()` starts a new process on the same device, with the same defaults and server.
/// `Headless second(first.defaults)` is another device with the same store.
class Headless {
 public:
  explicit Headless(const MemoryUserDefaults& sharedDefaults = {});
  ~Headless();
  Headless(const Headless&) = delete;
  Headless& operator=(const Headless&) = delete;

  /// The ports of the current process; the same ports until its session is invalidated.
  Platform platform();

  VirtualTime time;  // first, so that it outlives the other members, which use it
  MemoryUserDefaults defaults;
  Server server;
  HeadlessOutput output;
  HeadlessLocale locale;
  HeadlessDevice device;
  HeadlessTelephony telephony;
  HeadlessIdentifiers identifiers;
  HeadlessReachability reachability{time};
  HeadlessMainBundle mainBundle;
  HeadlessApplication application{time};
  APIBases apiBases{.production = "https://api.test/api/v1",
                    .sandbox = "http://sandbox.test:8000/api/v1"};

 private:
  void startProcess();

  std::shared_ptr<HeadlessURLSession> session_;
  std::shared_ptr<HeadlessMainQueue> mainQueue_;
  std::shared_ptr<NotificationCenter> notificationCenter_;
};

}  // namespace kva::headless
