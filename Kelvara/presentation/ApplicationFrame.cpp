#include <Kelvara/presentation/ApplicationFrame.h>

#include <Kelvara/base/Fatal.h>
#include <Kelvara/core/Runtime.h>

namespace kva {

HostApplication& hostApplication() {
  if (HostApplication* application = Runtime::current().platform().application.get())
    return *application;
  fatal("this platform has no application to show an ad in");
}

Rect applicationFrame(SafeArea safeArea) {
  auto window = hostApplication().keyWindow();
  if (!window) return {};
  const Rect frame = window->frame();
  if (safeArea == SafeArea::ignore) return frame;
  const EdgeInsets insets = window->safeAreaInsets();
  return {insets.left, insets.top, frame.width - (insets.left + insets.right),
          frame.height - (insets.top + insets.bottom)};
}

}  // namespace kva
