#include <platform/headless/Headless.h>

#include <string>

namespace kva::headless {
namespace {

// A non-owning pointer to a member of Headless, which outlives its users.
template <class T>
std::shared_ptr<T> borrowed(T& member) {
  return {std::shared_ptr<void>(), &member};
}

}  // namespace

Headless::Headless(const MemoryUserDefaults& sharedDefaults) : defaults(sharedDefaults) {
  startProcess();
  device.connect([this] {
    mainQueue_->async([center = notificationCenter_, sender = &device] {
      center->post(kOrientationDidChangeNotification, sender);
    });
  });
  application.connect([this] {
    mainQueue_->async([center = notificationCenter_, sender = &application] {
      center->post(kApplicationStateDidChangeNotification, sender);
    });
  });
}

// Pending tasks may hold views and queues, so destroy the tasks first.
Headless::~Headless() { time.clear(); }

void Headless::startProcess() {
  session_ = std::make_shared<HeadlessURLSession>(time, server);
  mainQueue_ = std::make_shared<HeadlessMainQueue>(time);
  notificationCenter_ = std::make_shared<NotificationCenter>();
}

Platform Headless::platform() {
  if (session_->isInvalidated()) startProcess();
  return {.urlSession = session_,
          .userDefaults = borrowed(defaults),
          .mainQueue = mainQueue_,
          .runLoop = borrowed(time),
          .notificationCenter = notificationCenter_,
          .clock = borrowed(time),
          .locale = borrowed(locale),
          .device = borrowed(device),
          .telephony = borrowed(telephony),
          .identifiers = borrowed(identifiers),
          .reachability = borrowed(reachability),
          .mainBundle = borrowed(mainBundle),
          .logOutput = borrowed(output),
          .application = borrowed(application),
          .apiBases = apiBases};
}

}  // namespace kva::headless
