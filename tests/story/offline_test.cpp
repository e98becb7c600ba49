// The SDK without a network, and while links, addresses and routes come and go.
#include <Kelvara/KVABidLoader.h>
#include <Kelvara/Kelvara.h>
#include <Kelvara/core/Runtime.h>
#include <gmock/gmock.h>
#include <sandbox/Catalogue.h>
#include <sandbox/Server.h>

#include "platform/linux_support.h"

namespace kva::story {
namespace {

using namespace std::chrono_literals;
using test::ip, test::spinUntil;

/// The code of the error that a bid ends with, or 0.
std::int64_t bidEndsWith() {
  const auto code = std::make_shared<std::atomic<std::int64_t>>(-1);
  KVABidLoader::loadBid(
      std::string(sandbox::kInterstitialAdUnit), KVABidType::interstitial,
      [code](const auto&, const auto& error) { *code = error ? error->code() : 0; });
  spinUntil([&] { return *code >= 0; });
  return *code;
}

TEST(OfflineStory, StartsByItselfWhenTheNetworkAppearsAndFollowsItWithinHalfASecond) {
  if (!test::isInNamespaceOfItsOwn()) return;
  ip("link set lo up");
  sandbox::Server server;
  ASSERT_TRUE(server.start());
  const test::TemporaryFolder folder;
  const Runtime runtime(makeLinuxPlatform(test::hostOptions(folder.path, server.baseURL())).ports);
  std::vector<std::int64_t> starts;
  Kelvara::start(std::string(sandbox::kApplicationId),
                 [&](const auto& error) { starts.push_back(error ? error->code() : 0); });
  EXPECT_FALSE(Kelvara::isInitialized());
  test::makeLink();
  EXPECT_TRUE(spinUntil([] { return Kelvara::isInitialized(); }));
  EXPECT_THAT(starts, testing::ElementsAre(4)) << "the retry calls no completion";

  const struct {
    std::vector<const char*> lose, restore;
    std::chrono::milliseconds duration = 0ms;
  } outages[] = {
      {{"link set inside down"}, {"link set inside up"}},
      {{"link set inside down"}, {"link set inside up"}, 3500ms},
      {{"link set outside down"}, {"link set outside up", "route add default via 192.0.2.1"}, 1s},
      {{"address del 192.0.2.2/24 dev outside"},
       {"address add 192.0.2.2/24 dev outside", "route add default via 192.0.2.1"}},
      {{"route del default"}, {"route add default via 192.0.2.1"}},
  };
  for (const auto& [lose, restore, duration] : outages) {
    SCOPED_TRACE(testing::Message() << lose.front() << " for " << duration / 1ms << " ms");
    const auto expectSoon = [](std::int64_t code) {
      EXPECT_TRUE(spinUntil([&] { return bidEndsWith() == code; }, 0.5)) << "no code " << code;
    };
    for (const char* step : lose) ip(step);
    expectSoon(4);
    test::spinFor(std::chrono::duration<double>(duration).count());
    for (const char* step : restore) ip(step);
    expectSoon(0);
  }
}

}  // namespace
}  // namespace kva::story
