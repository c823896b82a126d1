#include "logging/DateFormatterCache.hpp"

#include <gtest/gtest.h>

#include <latch>

#include "logging/XCGLogger.hpp"
#include "support/Environment.hpp"
#include "support/Threads.hpp"

namespace vornet {
namespace {

using platform::DateFormatter;
using test::ScopedVariable;

constexpr platform::Date DATE{std::chrono::milliseconds(1456841109123)};

class DateFormatterCacheTest : public testing::Test {
 protected:
  ScopedVariable zone{"TZ", "UTC"};
  ScopedVariable locale{"LC_ALL", "C.UTF-8"};
};

TEST_F(DateFormatterCacheTest, WritesYearToMillisecond) {
  ASSERT_NE(dateFormatterOfThread(), nullptr);
  EXPECT_EQ(dateFormatterOfThread()->stringFromDate(DATE), "2016-03-01 14:05:09.123");
}

TEST_F(DateFormatterCacheTest, GivesTheSameFormatterWithinAThread) {
  EXPECT_EQ(dateFormatterOfThread(), dateFormatterOfThread());
  EXPECT_EQ(XCGLogger().dateFormatter(), dateFormatterOfThread());
}

TEST_F(DateFormatterCacheTest, GivesEachThreadItsOwn) {
  DateFormatter* const mine = dateFormatterOfThread();
  DateFormatter* others[2] = {};
  std::latch bothMade(2);
  test::inParallel(2, [&](std::size_t i) {
    others[i] = dateFormatterOfThread();
    EXPECT_EQ(others[i]->stringFromDate(DATE), "2016-03-01 14:05:09.123");
    EXPECT_EQ(dateFormatterOfThread(), others[i]);
    bothMade.arrive_and_wait();  // alive until both were made, so that no address serves twice
  });
  EXPECT_NE(others[0], mine);
  EXPECT_NE(others[1], mine);
  EXPECT_NE(others[0], others[1]);
}

TEST_F(DateFormatterCacheTest, GivesEachLocaleItsOwnAndKeepsIt) {
  DateFormatter* const posix = dateFormatterOfThread();
  DateFormatter* arabic = nullptr;
  {
    const ScopedVariable other("LC_ALL", "ar_EG.UTF-8");
    arabic = dateFormatterOfThread();
    EXPECT_NE(arabic, posix);
    EXPECT_EQ(arabic->stringFromDate(DATE), "٢٠١٦-٠٣-٠١ ١٤:٠٥:٠٩.١٢٣");
    EXPECT_EQ(dateFormatterOfThread(), arabic);
  }
  EXPECT_EQ(dateFormatterOfThread(), posix);
  EXPECT_EQ(dateFormatterOfThread()->stringFromDate(DATE), "2016-03-01 14:05:09.123");
  const ScopedVariable again("LC_ALL", "ar_EG.UTF-8");
  EXPECT_EQ(dateFormatterOfThread(), arabic);
}

}  // namespace
}  // namespace vornet
