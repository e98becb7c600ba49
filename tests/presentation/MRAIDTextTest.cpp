#include <limits>

#include <gmock/gmock.h>

#include <Kelvara/presentation/MRCommandHandler.h>
#include <Kelvara/presentation/MREvent.h>

namespace kva {
namespace {

using testing::ElementsAre;
using Params = MRCommandHandler::Params;

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

struct Page : MRCommandHandlerDelegate {
  void commandHandlerCommandCompleted(MRCommandHandler&, const std::string& command) override {
    heard.push_back("completed " + command);
  }
  void commandHandlerCommandFailed(MRCommandHandler&, const std::string& command,
                                   const std::string& error) override {
    heard.push_back(command + ": " + error);
  }
  void commandHandlerOpenURL(MRCommandHandler&, const URL& url) override {
    heard.push_back("open " + url.absoluteString());
  }
  void commandHandlerResize(MRCommandHandler&) override { heard.push_back("resize"); }
  void commandHandlerPreloadComplete(MRCommandHandler&) override { heard.push_back("preload"); }
  void commandHandlerVideoComplete(MRCommandHandler&) override { heard.push_back("video"); }
  void commandHandlerVideoEvent(MRCommandHandler&, double duration, double current) override {
    times.push_back({duration, current});
  }
  std::vector<std::string> heard;
  std::vector<std::pair<double, double>> times;
};

struct MRCommands : testing::Test {
  MRCommands() { handler.setDelegate(page); }
  std::shared_ptr<Page> page = std::make_shared<Page>();
  MRCommandHandler handler;
};

TEST_F(MRCommands, OfMraidAreCheckedAndPassedOn) {
  const Params size{{"width", "x"}, {"height", ""}, {"offsetX", "-"}};
  Params sizeAndPlace = size;
  sizeAndPlace["offsetY"] = "y";
  const std::vector<std::pair<const char*, std::optional<Params>>> commands = {
      {"open", Params{{"url", "https://example.org/a?b=c"}}},
      {"open", Params{{"url", "no address"}}},  // dropped
      {"open", Params{{"url", "tel:112"}}},
      {"open", Params{{"url", "sms:112"}}},
      {"open", Params{{"URL", "https://example.org"}}},
      {"open", std::nullopt},
      {"Open", Params{{"url", "https://example.org"}}},
      {"resize", size},
      {"resize", sizeAndPlace},
      {"resize", std::nullopt},
      {"close", Params()},
  };
  for (const auto& [name, params] : commands) handler.handleComand(name, params);
  EXPECT_THAT(
      page->heard,
      ElementsAre("open https://example.org/a?b=c", "open: Scheme not supported: tel",
                  "open: Scheme not supported: sms", "open: URL not found!", "open: URL not found!",
                  "Open: Command not found!", "resize: Size parameters not found!", "resize",
                  "resize: Size parameters not found!", "close: Command not found!"));
}

TEST_F(MRCommands, OfTheSdkNeverFailOnTheirParameters) {
  for (const char* name : {"preloadComplete", "videoComplete", "close", "preloadcomplete", "open"})
    handler.handleKVAComand(name, std::nullopt);
  EXPECT_THAT(page->heard,
              ElementsAre("preload", "video", "close: Command not found!",
                          "preloadcomplete: Command not found!", "open: Command not found!"));

  handler.handleKVAComand("videoEvent", std::nullopt);
  const std::vector<std::pair<const char*, double>> times = {
      {"5.5", 5.5}, {"1e2", 100}, {"-3", -3}, {"abc", 0},  {"", 0},
      {" 5", 0},    {"5,5", 0},   {"5s", 0},  {"1e999", 0}};
  for (const auto& [text, seconds] : times) {
    handler.handleKVAComand("videoEvent", Params{{"duration", text}, {"currentTime", "9"}});
    EXPECT_EQ(page->times.back(), std::pair(seconds, 0.0)) << text;
    handler.handleKVAComand("videoEvent", Params{{"currenttime", text}});
    EXPECT_EQ(page->times.back(), std::pair(0.0, seconds)) << text;
  }
  EXPECT_EQ(page->times.front(), std::pair(0.0, 0.0));
}

TEST_F(MRCommands, AreNothingWithoutADelegate) {
  page.reset();
  handler.handleComand("open", std::nullopt);
  handler.handleKVAComand("videoComplete", std::nullopt);
}

}  // namespace
}  // namespace kva
