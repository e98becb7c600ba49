// What becomes of the host, the server and the screen when a page does its worst.
#include <gmock/gmock.h>
#include <stage/RealInput.h>
#include <stage/Screenshot.h>

#include "hostile/HostilePages.h"

namespace kva::show {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const auto wasShownAndClosed = ElementsAre("didReceive", "didPresent", "didDismiss");

TEST_F(HostilePages, MayLeadTheirViewElsewhereButNotTheUser) {
  const auto elsewhere = server.origin() + "/creatives/privacy.html";
  const auto isElsewhere = [&] { return address().starts_with(elsewhere); };
  const auto acts = [&] { return hasActed(); };
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"redirect-while-loading", isElsewhere},
      {"redirect-location", isElsewhere},
      {"redirect-refresh", isElsewhere},
      {"redirect-form", isElsewhere},
      {"redirect-from-frame", isElsewhere},
      {"redirect-history", [&] { return evaluate("document.title") != "\"ad\""; }},
      {"redirect-to-nowhere", acts},
      {"redirect-for-ever", acts},
  };
  for (const auto& [name, hasLed] : cases) {
    SCOPED_TRACE(name);
    present(name);
    EXPECT_TRUE(spinUntil(hasLed)) << address();
    close();
    EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  }
  EXPECT_THAT(opened, IsEmpty());
  expectUneventfulReports();
}

TEST_F(HostilePages, OpenNothingThatWasNotTapped) {
  for (const std::string name : {"ways-out", "schemes", "synthetic-taps"}) {
    SCOPED_TRACE(name);
    present(name);
    // A pointer that moves over the ad taps nothing.
    for (double x = 300; name == "synthetic-taps" && x < 400; x += 10)
      stage::movePointer(window, x, 300);
    EXPECT_TRUE(hasActed());
    EXPECT_EQ(evaluate("document.title"), "\"ad\"") << address();
    close();
    EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  }
  EXPECT_THAT(opened, IsEmpty());
  EXPECT_EQ(windows(), 1u);
  expectUneventfulReports();
}

TEST_F(HostilePages, HearWhatIsWrongWithTheirCommands) {
  present("malformed-commands");
  EXPECT_TRUE(hasActed());
  EXPECT_EQ(evaluate("[...new Set(errors)].sort()"),
            R"(["%00: Command not found!","%6fpen: Command not found!",)"
            R"("%C3%BC: Command not found!","Open: Command not found!",)"
            R"("VIDEOEVENT: Command not found!","close: Command not found!",)"
            R"("expand: Command not found!","hhhhhhhhhhhhhhhhhhhh: Command not found!",)"
            R"("open: Scheme not supported: sms","open: Scheme not supported: tel",)"
            R"("open: URL not found!","resize: Size parameters not found!",)"
            R"("unload: Command not found!","videoevent: Command not found!"])");
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  expectUneventfulReports();
}

TEST_F(HostilePages, AreReadyOnceHoweverOftenTheySaySo) {
  auto silent = beginLoading("preload-never", 0, Content::video);
  EXPECT_TRUE(hasActed());
  EXPECT_THAT(heardOfThis(), IsEmpty());
  EXPECT_TRUE(silent->isLoading());
  silent.reset();
  EXPECT_TRUE(spinUntil([&] { return !page(); })) << "the page outlives its ad";

  present("preload-thousandfold", 0, Content::video);
  EXPECT_TRUE(hasActed());
  clickTopTrailing();  // skips
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);

  present("video-flood", 0, Content::video);
  EXPECT_TRUE(hasActed());
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  expectUneventfulReports();
  EXPECT_EQ(server.state().report(lastBid->bidId())->quarter, 4);
}

TEST_F(HostilePages, CannotHoldUpTheUserNorTheHost) {
  const auto acts = [&] { return hasActed(); };
  const auto isTrapped = [&] {
    clickPage();
    return hasActed();
  };
  // With KELVARA_HOSTILE_COMMANDS set, all of that many.
  const auto floods = [&] {
    return g_getenv("KELVARA_HOSTILE_COMMANDS") ? hasActed(600) : comesTrue("sent > 500");
  };
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"endless-loop", nullptr},  {"endless-dialogs", nullptr},
      {"workers", nullptr},       {"fragment-flood", nullptr},
      {"memory", acts},           {"command-flood", floods},
      {"unload-trap", isTrapped},
  };
  for (const auto& [name, acted] : cases) {
    SCOPED_TRACE(name);
    present(name, 1);
    EXPECT_TRUE(!acted || acted());
    close();
    EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  }
  EXPECT_THAT(opened, IsEmpty());
  expectUneventfulReports();
  EXPECT_TRUE(spinUntil([] { return pageProcesses().size() <= 1; })) << "pages that live on";
}

TEST_F(HostilePages, MayDieAtAnyTime) {
  present("empty");
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);

  auto unready = beginLoading("never-loads");
  EXPECT_TRUE(hasActed());
  EXPECT_THAT(heardOfThis(), IsEmpty());
  killPageProcesses();
  EXPECT_TRUE(spinUntil([&] { return !heardOfThis().empty(); }));
  EXPECT_THAT(heardOfThis(), ElementsAre(StartsWith("didFailToReceive")));
  EXPECT_FALSE(unready->isLoading());
  unready.reset();

  auto busy = beginLoading("never-parses");
  EXPECT_TRUE(spinUntil([&] { return page() != nullptr; }));
  busy.reset();
  EXPECT_TRUE(spinUntil([&] { return !page(); }));
  EXPECT_THAT(heardOfThis(), IsEmpty());

  auto failing = beginLoading("fails");
  EXPECT_TRUE(spinUntil([&] { return !heardOfThis().empty(); }));
  EXPECT_THAT(heardOfThis(), ElementsAre(StartsWith("didFailToReceive")));
  failing.reset();

  const int ready = recorder->count("didReceive");
  auto dead = beginLoading("plain", 1);
  ASSERT_TRUE(heard("didReceive", ready + 1));
  killPageProcesses();
  show(*dead);
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);

  present("plain", 1);
  killPageProcesses();
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  expectUneventfulReports();
}

TEST_F(HostilePages, CannotCoverTheControls) {
  for (const std::string name : {"overlay", "overwrites"}) {
    SCOPED_TRACE(name);
    present(name, 1);
    EXPECT_TRUE(hasActed());
    close();
    EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  }

  present("list");
  clickPage();
  EXPECT_TRUE(hasActed());
  // A press beside an open list puts it away.
  EXPECT_TRUE(spinUntil([&] {
    clickTopTrailing();
    spinFor(0.3);
    return recorder->count("didDismiss") == 3;
  }));
  closed.insert(lastBid->bidId());
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  expectUneventfulReports();
}

TEST_F(HostilePages, GetNothingThatNeedsTheUsersLeave) {
  present("requests");
  EXPECT_TRUE(comesTrue("untapped")) << evaluate("outcomes");
  clickPage();
  EXPECT_TRUE(hasActed()) << evaluate("outcomes");
  EXPECT_EQ(evaluate("Object.keys(outcomes).filter(name => outcomes[name] != 'refused')"), "[]");
  EXPECT_EQ(gtk_widget_get_width(GTK_WIDGET(window)), 800);
  EXPECT_EQ(windows(), 1u);
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);

  present("downloads");
  clickPage();
  EXPECT_TRUE(hasActed());
  close();
  EXPECT_THAT(heardOfThis(), wasShownAndClosed);
  for (const char* place :
       {".", g_get_home_dir(), g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD)})
    EXPECT_FALSE(place && std::filesystem::exists(std::filesystem::path(place) / "hostile.bin"));
  EXPECT_THAT(opened, IsEmpty());
  expectUneventfulReports();
}

TEST_F(HostilePages, LeaveTheHostAloneUntilTheyAreShown) {
  auto* field = gtk_entry_new();
  gtk_window_set_child(window, field);
  gtk_widget_grab_focus(field);
  auto ad = beginLoading("early-focus");
  ASSERT_TRUE(heard("didReceive"));
  EXPECT_TRUE(comesTrue("rounds > 20"));
  EXPECT_TRUE(gtk_widget_is_ancestor(gtk_window_get_focus(window), field));
  ad.reset();

  // What plays unseen knows that it is, and ends with the ad.
  auto sounding = beginLoading("early-sound");
  ASSERT_TRUE(heard("didReceive", 2));
  EXPECT_TRUE(comesTrue("window.viewableThen === false"));
  sounding.reset();
  EXPECT_TRUE(spinUntil([&] { return !page() && pageProcesses().size() <= 1; }));
}

}  // namespace
}  // namespace kva::show
