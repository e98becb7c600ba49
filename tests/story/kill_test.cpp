// Kills a host again and again, at moments that a seed chooses, while it starts, registers, tracks,
// uploads, counts and stores templates; alone, and beside another process of the same application.
// Examines the stored file after every kill.
//   KELVARA_KILLS  how often (20)      KELVARA_SEED  which choices (1)
#include <Kelvara/ads/Template.h>
#include <Kelvara/core/SDKHelper.h>
#include <Kelvara/reporting/ReportStore.h>
#include <platform/linux/SqliteDefaults.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/linux_support.h"
#include "story/Chance.h"
#include "story/HostProcess.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using sandbox::Behaviour;
using sandbox::kApplicationId;
using sandbox::kImageTemplate;
using sandbox::kInterstitialAdUnit;
using std::chrono::microseconds;
using Keys = SDKHelper::UserDefaultKeys;

/// The actions of a bid, by their names in an uploaded report.
using Facts = std::set<std::string>;
constexpr const char* kActions[] = {"imp", "clck", "comp", "dism", "fts"};

constexpr std::size_t kKillsUntilDelivery = 20;

bool covers(const Facts& all, const Facts& some) { return std::ranges::includes(all, some); }

/// `happened` is in the order of kActions.
Facts factsOf(std::initializer_list<bool> happened) {
  Facts facts;
  for (auto* action = kActions; const bool one : happened) {
    if (one) facts.insert(*action);
    ++action;
  }
  return facts;
}

Facts factsOf(const sandbox::ReportRecord& report) {
  return factsOf(
      {report.impression, report.clicked, report.completed, report.dismissed, report.failToShow});
}

/// What the host was told to do with a bid or a plan, and what it answered.
struct Sent {
  Facts sent, answered;
};
struct Counted {
  std::int64_t sent = 0, answered = 0, stored = 0;
};

/// Milliseconds since 1970, in whole seconds.
std::int64_t now() { return 1000 * std::time(nullptr); }

constexpr microseconds kUntilUpload = 1s;
const std::pair<const char*, sandbox::Scenario> kFaults[] = {
    {"/bid/stats", {.behaviour = Behaviour::reset}},
    {"/bid/stats", {.behaviour = Behaviour::truncated}},
    {"/bid/stats", {.behaviour = Behaviour::serverError, .code = 500}},
    {"/bid/stats", {.delay = 20ms}},
    {"/template", {.delay = 15ms}},
    {"/template", {.behaviour = Behaviour::truncated, .times = 1}},
    {"/init", {.behaviour = Behaviour::serverError, .times = 1, .code = 503}},
    {"/bid/init", {.delay = 10ms}},
    {"/bid/stats", {.behaviour = Behaviour::serverError, .times = 1, .code = 404}},
    {"/register", {.delay = 40ms}},
    {"/register", {.behaviour = Behaviour::reset, .times = 1}},
};

class KillStory : public testing::Test {
 protected:
  // No pause between uploads and none after a failed bid, so every kind of work is always under
  // way.
  KillStory() : server({.periods = {.betweenUploads = 0, .restAfterNoFill = -100}}) {}
  void SetUp() override {
    ASSERT_TRUE(server.start());
    std::filesystem::create_directory(folder.path / "host");
  }

  /// Runs one process at a time.
  struct Place {
    std::unique_ptr<HostProcess> host;
    std::vector<std::string> liveBids;
  };

  void plantFaults() {
    server.clearScenarios();
    for (int i = 0; i < 2; ++i) {
      const auto& [endpoint, scenario] = chance.oneOf(kFaults);
      server.setScenario(endpoint, scenario);
    }
  }

  void launch(Place& place) const {
    place.host = std::make_unique<HostProcess>(server.baseURL(), file);
  }
  static bool starts(const Place& place) {
    place.host->await("ready");
    return place.host->ask("start " + std::string(kApplicationId), "started") == "started 0";
  }

  void launchAndKill() {
    plantFaults();
    if (chance.oneIn(3)) server.publishTemplate(kImageTemplate, templateText(++newestTemplate));
    Place& place = places[0];
    const auto begun = std::chrono::steady_clock::now();
    launch(place);
    const bool whileStarting = chance.oneIn(4);
    if (whileStarting)
      place.host->killAfter(
          microseconds(chance.below(static_cast<std::size_t>(startTakes.count()))));
    const bool started = starts(place);
    if (!whileStarting) {
      startTakes =
          std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now() - begun);
      // An upload begins a second after the start. Until then new reports would only make it
      // longer.
      const auto pause = chance.oneIn(4) ? kUntilUpload : 0us;
      place.host->killAfter(pause + microseconds(chance.below(pause > 0us ? 500'000 : 250'000)));
      std::this_thread::sleep_for(pause);
    }
    killedWhileStarting += whileStarting;
    while (started && work(place)) {
    }
    killNow(place);
  }

  /// Returns false once the host is killed.
  bool work(Place& place) {
    HostProcess& host = *place.host;
    bool alive = true;
    if (chance.oneIn(4)) host.send("bid " + std::string(kInterstitialAdUnit));
    if (chance.oneIn(4)) host.send("template " + std::string(kImageTemplate));
    if (chance.oneIn(3)) {
      const auto& plans = sandbox::findAdUnit(kInterstitialAdUnit)->plans;
      const std::string plan(chance.oneOf(plans).id);
      ++impressions[plan].sent;
      alive = !host.ask("impression " + plan, "impression").empty();
      impressions[plan].answered += alive;
    }
    const std::size_t burst = 1 + chance.below(12);
    for (std::size_t i = 0; i < burst; ++i) sendAction(place);
    for (std::size_t i = 0; i < burst && alive; ++i) alive = !host.await("tracked").empty();
    return alive;
  }

  void sendAction(Place& place) {
    auto& liveBids = place.liveBids;
    if (liveBids.size() < 8) {
      std::string number = std::to_string(commands.size());
      number.insert(0, 12 - number.size(), '0');
      liveBids.push_back("b1d00000-0000-4000-8000-" + number);
      commands[liveBids.back()];
    }
    const std::size_t at = chance.below(liveBids.size());
    const std::string bid = liveBids[at];
    const std::string fact = chance.oneOf(kActions);
    if (fact == "dism" || fact == "fts")
      liveBids.erase(liveBids.begin() + static_cast<std::ptrdiff_t>(at));
    commands[bid].sent.insert(fact);
    ++sentActions;
    place.host->send("track " + bid + " " + fact);
  }

  /// Returns how many actions the host has answered.
  std::size_t recordAnswers(const Place& place) {
    std::size_t answers = 0;
    for (const auto& line : place.host->answers()) {
      std::istringstream words(line);
      std::string answer, bid, fact;
      words >> answer >> bid >> fact;
      if (answer != "tracked") continue;
      commands[bid].answered.insert(fact);
      ++answers;
    }
    return answers;
  }

  void killNow(Place& place) {
    place.host->kill();
    answeredActions += recordAnswers(place);
  }

  /// Examines a copy, so the next launch opens the file as the kill has left it.
  void examineCopy() {
    const auto copy = folder.path / "copy";
    std::filesystem::remove_all(copy);
    std::filesystem::copy(folder.path / "host", copy);
    // The host may be killed before it makes the file.
    if (std::filesystem::exists(copy / "defaults.sqlite")) examine(copy / "defaults.sqlite");
  }

  void examine(const std::filesystem::path& stored) {
    auto defaults = std::make_shared<SqliteDefaults>(
        stored, [](const std::string& complaint) { ADD_FAILURE() << complaint; });
    for (const auto& entry : std::filesystem::directory_iterator(folder.path / "host"))
      EXPECT_FALSE(entry.path().native().contains("damaged")) << entry.path();
    expectReports(defaults);
    expectCounters(*defaults);
    expectTemplate(*defaults);
    expectUser(*defaults);
  }

  void expectReports(const std::shared_ptr<UserDefaults>& defaults) {
    std::map<std::string, Facts> found;
    const auto note = [&, latest = now() + 5000](const std::string& bid, const Facts& facts,
                                                 std::int64_t impressionAt) {
      found[bid].insert(facts.begin(), facts.end());
      const bool isInTheTest = begunAt - 5000 < impressionAt && impressionAt < latest;
      EXPECT_TRUE(facts.contains("imp") ? isInTheTest : impressionAt == 0) << bid;
    };
    for (const char* key : {Keys::reports, Keys::reportsForUpload}) {
      const ReportStore stored(defaults, key);
      for (const auto& [bid, report] : stored.reports()) {
        note(bid,
             factsOf({report.isShown, report.isClicked, report.isCompleted, report.isDismissed,
                      report.isFailToShow}),
             report.impressionAt);
      }
    }
    const auto state = server.state();
    for (const auto& report : state.reports) note(report.bid, factsOf(report), report.impressionAt);

    for (const auto& [bid, facts] : found)
      EXPECT_TRUE(commands.contains(bid) && covers(commands[bid].sent, facts))
          << "invented: " << bid << " " << testing::PrintToString(facts);
    for (const auto& [bid, of] : commands)
      EXPECT_TRUE(covers(found[bid], of.answered))
          << "lost: " << bid << " has " << testing::PrintToString(found[bid]) << " of "
          << testing::PrintToString(of.answered);
  }

  void expectCounters(const UserDefaults& defaults) {
    const auto bytes = defaults.get<Bytes>(Keys::frequencyCappingMembers);
    auto members = parseJson(bytes ? asText(*bytes) : "[]");
    ASSERT_TRUE(members) << "the stored counters cannot be read";
    std::map<std::string, std::int64_t> stored;
    for (const Json& member : *members) stored[member["planId"]] = member["hourlyImpressionCount"];
    for (auto& [plan, counted] : impressions) {
      EXPECT_GE(stored[plan], counted.stored) << plan << " went backwards";
      EXPECT_GE(stored[plan], counted.answered) << plan << " forgot";
      EXPECT_LE(stored[plan], counted.sent) << plan << " invented";
      counted.stored = stored[plan];
    }
  }

  void expectTemplate(const UserDefaults& defaults) {
    const auto bytes = defaults.get<Bytes>(Keys::templates);
    auto templates = parseJson(bytes ? asText(*bytes) : "{}");
    ASSERT_TRUE(templates) << "the stored templates cannot be read";
    if (!templates->contains(kImageTemplate)) {
      EXPECT_EQ(storedTemplate, 0) << "the template was lost";
      return;
    }
    const auto stored = Template::decode((*templates)[std::string(kImageTemplate)]);
    ASSERT_TRUE(stored) << stored.error().localizedDescription();
    EXPECT_GE(stored->version, storedTemplate) << "the template went backwards";
    EXPECT_LE(stored->version, newestTemplate);
    EXPECT_TRUE(stored->version == 3 || stored->htmlData == templateText(stored->version));
    storedTemplate = stored->version;
  }

  void expectUser(const UserDefaults& defaults) {
    const auto uid = defaults.get<std::string>(Keys::userId);
    if (!uid) return;
    const auto users = server.state().users;
    EXPECT_EQ(std::ranges::count(users, *uid, &sandbox::UserRecord::uid), 1) << *uid;
  }

  /// Whether the server has every answered action.
  bool serverHasAll() const {
    std::map<std::string, Facts> there;
    const auto state = server.state();
    for (const auto& report : state.reports) there[report.bid] = factsOf(report);
    return std::ranges::all_of(commands, [&](const auto& each) {
      return covers(there[each.first], each.second.answered);
    });
  }

  /// A launch that is not killed delivers every report that is left.
  void deliverTheRest() {
    server.clearScenarios();
    Place& last = places[0];
    launch(last);
    ASSERT_TRUE(starts(last));
    ASSERT_TRUE(last.host->ask("bid " + std::string(kInterstitialAdUnit), "").starts_with("bid "));
    // An action that is tracked during an upload waits for the next action.
    const auto limit = std::chrono::steady_clock::now() + 60s;
    // The device has removed what one upload delivered when the next one begins.
    std::int64_t delivery = 0;
    const auto isNextUpload = [&](const std::vector<sandbox::Exchange>& uploads) {
      if (uploads.empty() || !serverHasAll()) return false;
      if (delivery == 0) delivery = uploads.back().number;
      return uploads.back().number > delivery;
    };
    for (bool isEmpty = false; !isEmpty;) {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << "reports stay on the device";
      sendAction(last);
      ASSERT_FALSE(last.host->await("tracked").empty());
      isEmpty = server.waitForExchanges("/bid/stats", isNextUpload, 500ms);
    }
    killNow(last);
    examineCopy();
  }

  static std::string templateText(std::int64_t version) {
    return std::string(20'000 + 100 * static_cast<std::size_t>(version), 'x') + "version " +
           std::to_string(version);
  }

  const std::uint64_t seed = fromEnvironment("KELVARA_SEED", 1);
  Chance chance{seed};
  test::TemporaryFolder folder;
  const std::filesystem::path file = folder.path / "host" / "defaults.sqlite";
  sandbox::Server server;
  const std::int64_t begunAt = now();

  std::map<std::string, Sent> commands;  ///< by bid
  Place places[2];
  std::map<std::string, Counted> impressions;
  std::int64_t newestTemplate = 3, storedTemplate = 0;
  microseconds startTakes = 30ms;
  std::size_t killedWhileStarting = 0, sentActions = 0, answeredActions = 0;
};

TEST_F(KillStory, LosesAndInventsNothingWheneverItIsKilled) {
  const std::size_t kills = fromEnvironment("KELVARA_KILLS", 20);
  std::cout << "KELVARA_SEED=" << seed << " KELVARA_KILLS=" << kills << std::endl;
  std::size_t uploadsMet = 0, uploadsOfDeliveries = 0, accepted = 0;
  auto newUploads = [&, last = std::int64_t{0}]() mutable {
    std::size_t count = 0;
    for (const auto& upload : server.exchanges("/bid/stats")) {
      if (upload.number <= last) continue;
      last = upload.number;
      accepted += upload.verdict == "ok";
      ++count;
    }
    return count;
  };
  for (std::size_t kill = 1; kill <= kills && !HasFailure(); ++kill) {
    SCOPED_TRACE("after kill " + std::to_string(kill));
    launchAndKill();
    examineCopy();
    // Few launches live until an upload, and a start with thousands of reports takes seconds.
    if (kill % kKillsUntilDelivery != 0 && kill != kills) continue;
    uploadsMet += newUploads();
    deliverTheRest();
    uploadsOfDeliveries += newUploads();
  }
  if (HasFailure()) return;
  // A few kills may all miss the uploads.
  EXPECT_TRUE(kills < 100 || uploadsMet > 0) << "no upload was met";

  const auto state = server.state();
  std::cout << kills << " kills (" << killedWhileStarting << " while starting), " << answeredActions
            << " actions answered, " << sentActions - answeredActions
            << " on their way when the host died, " << commands.size() << " bids, "
            << uploadsMet + uploadsOfDeliveries << " uploads (" << uploadsMet << " before a kill), "
            << accepted << " of them accepted, " << state.reports.size()
            << " reports at the server, " << state.users.size() << " registrations" << std::endl;
  EXPECT_GT(answeredActions, kills);
  EXPECT_GT(accepted, 0);
}

TEST_F(KillStory, TwoProcessesLoseNothingOfEachOther) {
  const std::size_t kills = fromEnvironment("KELVARA_KILLS", 20) / 2;
  auto& [first, second] = places;
  for (Place& place : places) {
    launch(place);
    ASSERT_TRUE(starts(place));
  }
  for (std::size_t round = 1; round <= kills && !HasFailure(); ++round) {
    SCOPED_TRACE("after kill " + std::to_string(round));
    plantFaults();
    Place& victim = places[chance.below(2)];
    Place& survivor = &victim == &first ? second : first;
    victim.host->killAfter(microseconds(chance.below(250'000)));
    while (work(victim)) ASSERT_TRUE(work(survivor));
    killNow(victim);
    recordAnswers(survivor);
    examine(file);
    server.clearScenarios();
    launch(victim);
    ASSERT_TRUE(starts(victim));
  }
  if (HasFailure()) return;
  killNow(first);
  killNow(second);
  examineCopy();
  deliverTheRest();
  EXPECT_GT(answeredActions, kills);
}

}  // namespace
}  // namespace kva::story
