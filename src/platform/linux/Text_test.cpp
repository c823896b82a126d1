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

TEST(UTF8, RefusesTextThatIsNotWellFormed) {
  const std::pair<const char*, std::vector<std::string_view>> cases[] = {
      {"overlong form",
       {"\xC0\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\x80", "\xE0\x9F\xBF", "\xF0\x80\x80\x80", "\xF0\x8F\xBF\xBF"}},
      {"surrogate", {"\xED\xA0\x80", "\xED\xAF\xBF", "\xED\xB0\x80", "\xED\xBF\xBF", "\xED\xA0\xBD\xED\xB9\x82"}},
      {"beyond Unicode",
       {"\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80", "\xFE", "\xFF"}},
      {"torn sequence",
       {"\x80", "\xBF", "\xC3", "\xE6\x97", "\xF0\x9F\x99", "\xC3\x28", "\xE6\x28\xA5", "\xF0\x9F\x28\x82",
        "\xC3\xC3\xBC"}}};
  for (const auto& [fault, texts] : cases)
    for (const auto text : texts) EXPECT_FALSE(isValidUTF8(text)) << fault << ' ' << testing::PrintToString(text);
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
