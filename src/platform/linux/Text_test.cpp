#include <gtest/gtest.h>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_view_literals;

TEST(UTF8, TakesWellFormedText) {
  for (const auto text : {""sv, "a"sv, "a\0b"sv, "\x7F"sv, "\xC2\x80"sv, "ü"sv, "\xDF\xBF"sv, "\xE0\xA0\x80"sv,
                          "日本"sv, "\xED\x9F\xBF"sv, "\xEE\x80\x80"sv, "\xEF\xBF\xBD"sv, "\xEF\xBF\xBF"sv,
                          "\xF0\x90\x80\x80"sv, "🙂"sv, "\xF4\x8F\xBF\xBF"sv, "e\u0301"sv, "\xEF\xBB\xBF"sv}) {
    EXPECT_TRUE(isValidUTF8(text)) << text;
  }
}

TEST(UTF8, RefusesOverlongForms) {
  for (const auto text : {"\xC0\x80"sv, "\xC0\xAF"sv, "\xC1\xBF"sv, "\xE0\x80\x80"sv, "\xE0\x9F\xBF"sv,
                          "\xF0\x80\x80\x80"sv, "\xF0\x8F\xBF\xBF"sv}) {
    EXPECT_FALSE(isValidUTF8(text));
  }
}

TEST(UTF8, RefusesSurrogates) {
  for (const auto text :
       {"\xED\xA0\x80"sv, "\xED\xAF\xBF"sv, "\xED\xB0\x80"sv, "\xED\xBF\xBF"sv, "\xED\xA0\xBD\xED\xB9\x82"sv}) {
    EXPECT_FALSE(isValidUTF8(text));
  }
}

TEST(UTF8, RefusesWhatIsBeyondUnicode) {
  for (const auto text : {"\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xF8\x88\x80\x80\x80"sv,
                          "\xFC\x84\x80\x80\x80\x80"sv, "\xFE"sv, "\xFF"sv}) {
    EXPECT_FALSE(isValidUTF8(text));
  }
}

TEST(UTF8, RefusesTornSequences) {
  for (const auto text : {"\x80"sv, "\xBF"sv, "\xC3"sv, "\xE6\x97"sv, "\xF0\x9F\x99"sv, "\xC3\x28"sv, "\xE6\x28\xA5"sv,
                          "\xF0\x9F\x28\x82"sv, "\xC3\xC3\xBC"sv}) {
    EXPECT_FALSE(isValidUTF8(text));
  }
}

TEST(UTF8, RefusesOneBadByteAnywhere) {
  const std::string good = "Ünïcode 日本 🙂, and ASCII without an end";
  ASSERT_TRUE(isValidUTF8(good));
  for (std::size_t i = 0; i <= good.size(); ++i) {
    std::string bad = good;
    bad.insert(i, 1, '\xFF');
    EXPECT_FALSE(isValidUTF8(bad)) << i;
  }
}

}  // namespace
}  // namespace vornet::platform
