#include "logging/LogLevel.hpp"

#include <gtest/gtest.h>

#include <array>

namespace vornet {
namespace {

constexpr std::array LEVELS = {LogLevel::Verbose, LogLevel::Debug,  LogLevel::Info, LogLevel::Warning,
                               LogLevel::Error,   LogLevel::Severe, LogLevel::None};

TEST(LogLevel, HasTheRawValuesZeroToSixAndIsMadeFromThem) {
  for (std::size_t i = 0; i < LEVELS.size(); ++i) {
    EXPECT_EQ(rawValue(LEVELS[i]), static_cast<int>(i));
    EXPECT_EQ(logLevelWithRawValue(static_cast<int>(i)), LEVELS[i]);
  }
}

TEST(LogLevel, DescribesItselfByItsName) {
  constexpr std::array names = {"Verbose", "Debug", "Info", "Warning", "Error", "Severe", "None"};
  for (std::size_t i = 0; i < LEVELS.size(); ++i) EXPECT_EQ(description(LEVELS[i]), names[i]);
}

TEST(LogLevel, ComparesByRawValue) {
  for (const LogLevel a : LEVELS) {
    for (const LogLevel b : LEVELS) {
      EXPECT_EQ(a == b, rawValue(a) == rawValue(b));
      EXPECT_EQ(a < b, rawValue(a) < rawValue(b));
      EXPECT_EQ(a <= b, rawValue(a) <= rawValue(b));
      EXPECT_EQ(a > b, rawValue(a) > rawValue(b));
      EXPECT_EQ(a >= b, rawValue(a) >= rawValue(b));
    }
  }
}

TEST(LogLevel, HashesToItsRawValue) {
  for (const LogLevel level : LEVELS)
    EXPECT_EQ(std::hash<LogLevel>()(level), static_cast<std::size_t>(rawValue(level)));
}

TEST(LogLevel, IsAbsentForOtherRawValues) {
  for (const int raw : {-1, 7, 100, -100}) EXPECT_EQ(logLevelWithRawValue(raw), std::nullopt) << raw;
}

}  // namespace
}  // namespace vornet
