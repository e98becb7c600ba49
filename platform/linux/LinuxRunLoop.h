#pragma once

#include <memory>
#include <utility>

#include "platform/linux/LazySession.h"
#include "platform/linux/MainLoop.h"

namespace kva {

/// The session's timers on the session's thread, the main loop's on every other.
class LinuxRunLoop final : public RunLoop {
 public:
  LinuxRunLoop(std::shared_ptr<MainLoop> main, std::shared_ptr<LazySession> session)
      : main_(std::move(main)), session_(std::move(session)) {}

  Timer schedule(double seconds, Repeats repeats, std::move_only_function<void()> fire) override {
    return session_->isSessionThread()
               ? session_->timers().schedule(seconds, repeats, std::move(fire))
               : main_->schedule(seconds, repeats, std::move(fire));
  }

  Schedule scheduleHere() override {
    if (session_->isSessionThread())
      return [session = session_](double seconds, Repeats repeats, auto fire) {
        return session->timers().schedule(seconds, repeats, std::move(fire));
      };
    return [main = main_](double seconds, Repeats repeats, auto fire) {
      return main->schedule(seconds, repeats, std::move(fire));
    };
  }

 private:
  std::shared_ptr<MainLoop> main_;
  std::shared_ptr<LazySession> session_;
};

}  // namespace kva
