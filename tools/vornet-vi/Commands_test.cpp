#include "Commands.hpp"

#include <gtest/gtest.h>

#include "RestartPace.hpp"

namespace vornet::vi {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::vector<MenuEntry> MENU{{"Share", "share:", true, "QMT"}, {"Copy Link", "copyLink:", false, "QMT"}};

TEST(FindEntryTest, findsByTitleWhateverTheCase) {
  ASSERT_TRUE(findEntry(MENU, "copy LINK"));
  EXPECT_EQ(findEntry(MENU, "copy LINK")->action, "copyLink:");
}

TEST(FindEntryTest, findsByActionWithOrWithoutColon) {
  ASSERT_TRUE(findEntry(MENU, "copyLink:"));
  ASSERT_TRUE(findEntry(MENU, "copyLink"));
  EXPECT_EQ(findEntry(MENU, "copyLink")->title, "Copy Link");
}

TEST(FindEntryTest, findsNothingElse) {
  EXPECT_FALSE(findEntry(MENU, "copylink"));
  EXPECT_FALSE(findEntry(MENU, ""));
  EXPECT_FALSE(findEntry(MENU, "Sha"));
  EXPECT_FALSE(findEntry(MENU, "\xFF"));
}

TEST(RestartPaceTest, callsBackAtOnceThenLaterAndLater) {
  RestartPace pace;
  RestartPace::Clock::time_point now{};
  pace.answered(now);
  EXPECT_EQ(pace.delay(now), milliseconds{0});
  EXPECT_EQ(pace.delay(now), seconds{1});
  EXPECT_EQ(pace.delay(now), seconds{2});
  for (int i = 0; i < 100; ++i) {
    EXPECT_LE(pace.delay(now), RestartPace::LONGEST);
  }
  EXPECT_EQ(pace.delay(now), RestartPace::LONGEST);
}

TEST(RestartPaceTest, doesNotForgetAnEndThatFollowsSoonAfterAnAnswer) {
  RestartPace pace;
  RestartPace::Clock::time_point now{};
  pace.answered(now);
  EXPECT_EQ(pace.delay(now), milliseconds{0});
  pace.answered(now + seconds{1});
  EXPECT_EQ(pace.delay(now + seconds{2}), seconds{1});
}

TEST(RestartPaceTest, startsAfreshAfterASteadyLife) {
  RestartPace pace;
  RestartPace::Clock::time_point now{};
  pace.answered(now);
  pace.delay(now);
  pace.delay(now);
  pace.answered(now);
  EXPECT_EQ(pace.delay(now + RestartPace::STEADY), milliseconds{0});
}

}  // namespace
}  // namespace vornet::vi
