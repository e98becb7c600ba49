#pragma once

#include <algorithm>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include <Kelvara/platform/Locale.h>

namespace kva::test {

/// `Subject` has `Locale& locale();`.
template <class Subject>
class LocaleContract : public testing::Test {
 protected:
  static bool all(const std::string& text, int (*kind)(int)) {
    return std::ranges::all_of(text, [&](char c) { return kind(static_cast<unsigned char>(c)); });
  }
  Subject subject;
};
TYPED_TEST_SUITE_P(LocaleContract);

TYPED_TEST_P(LocaleContract, SpeaksInTagsAndCodes) {
  const auto& locale = this->subject.locale();
  EXPECT_FALSE(locale.preferredLanguages().empty());
  for (const auto& tag : locale.preferredLanguages()) {
    const auto language = tag.substr(0, tag.find('-'));
    EXPECT_TRUE(language.size() >= 2 && language.size() <= 3) << tag;
    EXPECT_TRUE(this->all(language, std::islower)) << tag;
    EXPECT_EQ(tag.find_first_of("_.@ "), std::string::npos) << tag;
  }
  if (const auto country = locale.countryCode()) {
    EXPECT_EQ(country->size(), 2u);
    EXPECT_TRUE(this->all(*country, std::isupper)) << *country;
  }
  if (const auto language = locale.languageCode()) {
    EXPECT_TRUE(language->size() == 2 || language->size() == 3) << *language;
    EXPECT_TRUE(this->all(*language, std::islower)) << *language;
  }
  ASSERT_TRUE(locale.timeZoneAbbreviation());
  EXPECT_FALSE(locale.timeZoneAbbreviation()->empty());
}

REGISTER_TYPED_TEST_SUITE_P(LocaleContract, SpeaksInTagsAndCodes);

}  // namespace kva::test
