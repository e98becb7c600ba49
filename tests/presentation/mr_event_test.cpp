#include <limits>

#include <gmock/gmock.h>

#include <Kelvara/presentation/MREvent.h>

namespace kva {
namespace {

TEST(MREvent, SaysToThePageExactly) {
  const std::vector<std::pair<MREvent, const char*>> events = {
      {{MREvent::SizeChanged{{320, 50}}}, "mraidbridge.notifySizeChangeEvent(320.0, 50.0);"},
      {{MREvent::ScreenSize{{1280.25, 1024}}}, "mraidbridge.setScreenSize(1280.2, 1024.0);"},
      {{MREvent::CurrentPosition{{-0.5, 20, 375, 758.96}}},
       "mraidbridge.setCurrentPosition(-0.5, 20.0, 375.0, 759.0);"},
      {{MREvent::DefaultPosition{{}}}, "mraidbridge.setDefaultPosition(0.0, 0.0, 0.0, 0.0);"},
      {{MREvent::MaxSize{{1234567, 1e15}}},
       "mraidbridge.setMaxSize(1234567.0, 1000000000000000.0);"},
      {{MREvent::Viewable{true}}, "mraidbridge.fireChangeEvent({viewable: true});"},
      {{MREvent::Viewable{false}}, "mraidbridge.fireChangeEvent({viewable: false});"},
      {{MREvent::VideoMute{true}}, "mraidbridge.fireChangeEvent({videoMuted: true});"},
      {{MREvent::VideoMute{false}}, "mraidbridge.fireChangeEvent({videoMuted: false});"},
      {{MREvent::OrientationChange{-90}}, "mraidbridge.fireChangeEvent({orientationDegree: -90});"},
      {{MREvent::Config{{"sms: false", "tel: true"}, "hidden"}},
       "mraidbridge.fireChangeEvent({supports: {sms: false, tel: true}, state: 'hidden'});"},
      {{MREvent::CommandComplete{"open"}}, "window.mraidbridge.nativeCallComplete('open');"},
      {{MREvent::CommandError{"close", "Command not found!"}},
       "window.mraidbridge.fireErrorEvent('close', 'Command not found!');"},
      {{MREvent::Ready{}}, "window.mraidbridge.fireReadyEvent();"},
      {{MREvent::Skip{}}, "window.mraidbridge.fireChangeEvent({skipTapped: true});"},
  };
  for (const auto& [event, text] : events) EXPECT_EQ(event.javaScript(), text);
}

TEST(MREvent, WritesEveryDigitOfTheLargestLength) {
  const double largest = std::numeric_limits<double>::max();
  EXPECT_THAT(MREvent{MREvent::MaxSize({-largest, 0})}.javaScript(),
              testing::AllOf(testing::StartsWith("mraidbridge.setMaxSize(-17976931348623157"),
                             testing::SizeIs(testing::Gt(310u)), testing::EndsWith(".0, 0.0);")));
}

}  // namespace
}  // namespace kva
