#include <Kelvara/presentation/MREvent.h>

#include <charconv>
#include <limits>

namespace kva {
namespace {

std::string oneDecimal(double number) {
  // Room for every digit of the largest double, its sign, the point and one decimal.
  char text[std::numeric_limits<double>::max_exponent10 + 5];
  auto result = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, 1);
  return {text, result.ptr};
}

std::string list(const Size& size) {
  return oneDecimal(size.width) + ", " + oneDecimal(size.height);
}

std::string list(const Rect& rect) {
  return oneDecimal(rect.x) + ", " + oneDecimal(rect.y) + ", " + list(rect.size());
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const auto& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

std::string change(const std::string& property, const std::string& value) {
  return "mraidbridge.fireChangeEvent({" + property + ": " + value + "});";
}

std::string text(bool value) { return value ? "true" : "false"; }

struct JavaScript {
  std::string operator()(const MREvent::SizeChanged& event) const {
    return "mraidbridge.notifySizeChangeEvent(" + list(event.size) + ");";
  }
  std::string operator()(const MREvent::ScreenSize& event) const {
    return "mraidbridge.setScreenSize(" + list(event.size) + ");";
  }
  std::string operator()(const MREvent::CurrentPosition& event) const {
    return "mraidbridge.setCurrentPosition(" + list(event.rect) + ");";
  }
  std::string operator()(const MREvent::DefaultPosition& event) const {
    return "mraidbridge.setDefaultPosition(" + list(event.rect) + ");";
  }
  std::string operator()(const MREvent::MaxSize& event) const {
    return "mraidbridge.setMaxSize(" + list(event.size) + ");";
  }
  std::string operator()(const MREvent::Viewable& event) const {
    return change("viewable", text(event.viewable));
  }
  std::string operator()(const MREvent::VideoMute& event) const {
    return change("videoMuted", text(event.muted));
  }
  std::string operator()(const MREvent::OrientationChange& event) const {
    return change("orientationDegree", std::to_string(event.degrees));
  }
  std::string operator()(const MREvent::Config& event) const {
    return "mraidbridge.fireChangeEvent({supports: {" + joined(event.features) + "}, state: '" +
           event.state + "'});";
  }
  std::string operator()(const MREvent::CommandComplete& event) const {
    return "window.mraidbridge.nativeCallComplete('" + event.command + "');";
  }
  std::string operator()(const MREvent::CommandError& event) const {
    return "window.mraidbridge.fireErrorEvent('" + event.command + "', '" + event.message + "');";
  }
  std::string operator()(const MREvent::Ready&) const {
    return "window.mraidbridge.fireReadyEvent();";
  }
  std::string operator()(const MREvent::Skip&) const {
    return "window.mraidbridge.fireChangeEvent({skipTapped: true});";
  }
};

}  // namespace

std::string MREvent::javaScript() const { return std::visit(JavaScript(), value); }

}  // namespace kva
