// The contract of the user defaults on both platforms.
#include <limits>

#include <platform/contract/Contract.h>

namespace kva::test {
namespace {

template <class Subject>
struct UserDefaultsContract : Contract<Subject> {};
TYPED_TEST_SUITE(UserDefaultsContract, Subjects, SubjectNames);

TYPED_TEST(UserDefaultsContract, KeepsOverwritesAndRemovesValuesOfEveryType) {
  using namespace std::string_literals;
  using Integers = std::numeric_limits<std::int64_t>;
  const std::map<std::string, UserDefaults::Value> values{
      {"", ""s},
      {"text", "text with \0 inside, \"quotes\" and ünïcode"s},
      {"TEXT", true},
      {"o'dd \"k\xc3\xa9y\"; --", false},
      {"bytes", Bytes{}},
      {"more bytes", Bytes{std::byte{0}, std::byte{0xff}, std::byte{'\n'}}},
      {"least", Integers::min()},
      {"most", Integers::max()},
      {"whole", 5.0},
      {"fraction", 0.1},
      {"huge", -1e300},
      {"object", JsonParts{JsonParts::Kind::object, {{"", "1"}, {"\xc3\xbc \"", "[]"}}}},
      {"array", JsonParts{JsonParts::Kind::array, {}}},
  };
  auto& ports = this->subject.ports;
  ports.userDefaults->remove("never set");
  ports.userDefaults->set("most", "overwritten"s);
  for (const auto& [key, value] : values) ports.userDefaults->set(key, value);
  ports.userDefaults->set("nan", std::nan(""));
  ports.userDefaults->set("gone", true);
  ports.userDefaults->remove("gone");
  for (const char* when : {"at once", "after a restart"}) {
    for (const auto& [key, value] : values)
      EXPECT_TRUE(ports.userDefaults->value(key) == value) << key << " " << when;
    EXPECT_TRUE(std::isnan(*ports.userDefaults->template get<double>("nan"))) << when;
    EXPECT_FALSE(ports.userDefaults->value("gone")) << when;
    EXPECT_FALSE(ports.userDefaults->template get<double>("most")) << "an integer";
    this->subject.restart();
  }
}

TYPED_TEST(UserDefaultsContract, SharesValuesAmongProcessesAndLosesNoEdit) {
  UserDefaults& here = *this->subject.ports.userDefaults;
  const std::shared_ptr<UserDefaults> elsewhere = this->subject.defaultsElsewhere();
  constexpr int kEdits = 200;
  const auto countUp = [](UserDefaults& store, const char* own) {
    for (int i = 1; i <= kEdits; ++i)
      EXPECT_TRUE(store.edit([&](KeyedValues& values) {
        const auto count = values.get<std::int64_t>("count").value_or(0);
        values.remove("gone");
        values.set("count", count + 1);
        values.set(own, std::int64_t{i});
        EXPECT_EQ(values.get<std::int64_t>("count"), count + 1);
      }));
  };
  here.set("gone", true);
  std::jthread other([&] { countUp(*elsewhere, "elsewhere"); });
  countUp(here, "here");
  other.join();
  EXPECT_EQ(here.get<std::int64_t>("count"), 2 * kEdits);
  EXPECT_EQ(here.get<std::int64_t>("elsewhere"), kEdits);
  EXPECT_EQ(elsewhere->get<std::int64_t>("here"), kEdits);
  EXPECT_FALSE(here.value("gone"));

  const auto before = here.foreignChanges();
  here.set("own", true);
  EXPECT_TRUE(here.edit([](KeyedValues& values) { values.remove("own"); }));
  EXPECT_TRUE(elsewhere->edit([](KeyedValues&) {}));
  EXPECT_EQ(here.foreignChanges(), before);
  elsewhere->set("foreign", true);
  const auto after = here.foreignChanges();
  EXPECT_NE(after, before);
  EXPECT_TRUE(here.edit([&](KeyedValues& values) { EXPECT_EQ(values.foreignChanges(), after); }));
}

TYPED_TEST(UserDefaultsContract, ChangesOnePartOfJsonAndReadsTheWhole) {
  UserDefaults& here = *this->subject.ports.userDefaults;
  const std::shared_ptr<UserDefaults> elsewhere = this->subject.defaultsElsewhere();
  const auto expect = [&](const char* whole) {
    const auto bytes = elsewhere->template get<Bytes>("json");
    EXPECT_EQ(bytes ? asText(*bytes) : "none", whole);
  };
  using Kind = JsonParts::Kind;
  here.set("json", JsonParts{Kind::object, {{"b", "1"}, {"\"a", "[2]"}}});
  here.set("other", JsonParts{Kind::array, {{"b", "1"}}});
  expect(R"({"\"a":[2],"b":1})");
  EXPECT_TRUE(here.edit([](EditedValues& values) {
    values.setPart("json", "c", "3");
    values.setPart("json", "\"a", std::nullopt);
    values.setPart("json", "never set", std::nullopt);
    values.setPart("json", "b", "4");
    EXPECT_EQ(asText(*values.get<Bytes>("json")), R"({"b":4,"c":3})");
  }));
  expect(R"({"b":4,"c":3})");
  EXPECT_TRUE(here.edit([](EditedValues& values) {
    values.set("json", JsonParts{Kind::array, {{"2", "2"}}});
    values.setPart("json", "1", "1");
  }));
  expect("[1,2]");
  for (const bool isRemoved : {true, false}) {
    isRemoved ? here.remove("json") : here.set("json", true);
    expect("none");
    here.set("json", JsonParts{Kind::array, {{"3", "3"}}});
    expect("[3]");
  }
  EXPECT_EQ(asText(*here.get<Bytes>("other")), "[1]");
}

TYPED_TEST(UserDefaultsContract, GivesAClaimToOneHolderAtATime) {
  UserDefaults& here = *this->subject.ports.userDefaults;
  const std::shared_ptr<UserDefaults> elsewhere = this->subject.defaultsElsewhere();
  auto claim = here.claim(UserDefaults::Task::upload);
  EXPECT_TRUE(claim);
  EXPECT_TRUE(elsewhere->claim(UserDefaults::Task::registration)) << "another task";
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_FALSE(elsewhere->claim(UserDefaults::Task::upload));
    EXPECT_FALSE(here.claim(UserDefaults::Task::upload));
  }
  claim.reset();
  claim = elsewhere->claim(UserDefaults::Task::upload);
  EXPECT_TRUE(claim);
  EXPECT_FALSE(here.claim(UserDefaults::Task::upload));
}

}  // namespace
}  // namespace kva::test
