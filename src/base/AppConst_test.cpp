#include "base/AppConst.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <type_traits>

namespace vornet {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

TEST(AppConstTest, HoldsNineTextsInTheirOrder) {
  const auto& [group, codename, socket, syncDatabase, configDatabase, preferences, host, log, level] = App();
  EXPECT_EQ(group, App().APP_GROUP);
  EXPECT_EQ(codename, App().APP_CODENAME);
  EXPECT_EQ(socket, "vi.sock");
  EXPECT_EQ(syncDatabase, "sync.db");
  EXPECT_EQ(configDatabase, "config.db");
  EXPECT_EQ(preferences, "VornetKelvane.plist");
  EXPECT_EQ(host, "http://127.0.0.1:8806");
  EXPECT_EQ(log, "vi.log");
  EXPECT_EQ(level, "INFO");
  static_assert(sizeof(AppConst) == 9 * sizeof(std::string));
}

TEST(AppConstTest, EachNameIsUnderItsField) {
  EXPECT_EQ(App().UNIX_SOCKET, "vi.sock");
  EXPECT_EQ(App().SYNC_DB_NAME, "sync.db");
  EXPECT_EQ(App().CONFIG_DB_NAME, "config.db");
  EXPECT_EQ(App().KELVANE_PLIST, "VornetKelvane.plist");
  EXPECT_EQ(App().PLC_REST_HOST, "http://127.0.0.1:8806");
  EXPECT_EQ(App().LOG_FILE, "vi.log");
  EXPECT_EQ(App().DEFAULT_LOG_LEVEL, "INFO");
}

TEST(AppConstTest, IdentifierOfTheSyncApplicationIsReverseDomainTextOf22Characters) {
  EXPECT_EQ(App().APP_GROUP.size(), 22U);
  EXPECT_THAT(App().APP_GROUP, ::testing::MatchesRegex("[A-Za-z]+(\\.[A-Za-z]+)+"));
}

TEST(AppConstTest, IdentifierOfTheExtensionHas43CharactersAndContinuesTheApplications) {
  EXPECT_EQ(App().APP_CODENAME.size(), 43U);
  EXPECT_TRUE(App().APP_CODENAME.starts_with(App().APP_GROUP + "."));
  EXPECT_EQ(App().APP_CODENAME.find('.', App().APP_GROUP.size() + 1), std::string::npos);
}

TEST(AppConstTest, EachNewRecordHoldsTheSameValuesAsTheSharedOne) {
  const AppConst made;
  const auto& [a1, a2, a3, a4, a5, a6, a7, a8, a9] = made;
  const auto& [b1, b2, b3, b4, b5, b6, b7, b8, b9] = App();
  EXPECT_EQ(std::tie(a1, a2, a3, a4, a5, a6, a7, a8, a9), std::tie(b1, b2, b3, b4, b5, b6, b7, b8, b9));
}

TEST(AppConstTest, SharedRecordIsOneAndCannotBeChanged) {
  EXPECT_EQ(&App(), &App());
  static_assert(std::is_same_v<decltype(App()), const AppConst&>);
  static_assert(std::is_same_v<decltype(statusMap()), const std::map<StatusCode, std::string_view>&>);
}

TEST(AppConstTest, DeclaredSizesAreSigned64BitConstants) {
  static_assert(std::is_same_v<decltype(DIR_CACHE_SIZE), const std::int64_t>);
  static_assert(std::is_same_v<decltype(HTTP_TIMEOUT), const std::int64_t>);
  EXPECT_EQ(DIR_CACHE_SIZE, 2);
  EXPECT_EQ(HTTP_TIMEOUT, 3);
}

TEST(AppConstTest, MenuIdentifiersAreTextsOfOneCharacter) {
  EXPECT_EQ(MENU_SHARE_AS_LINK, "1");
  EXPECT_EQ(MENU_COPY_LINK, "2");
  EXPECT_EQ(MENU_CFS, "3");
  EXPECT_EQ(MENU_VIEW_NOTES, "4");
  EXPECT_EQ(MENU_VIEW_VERSIONS, "5");
}

TEST(AppConstTest, AMenuIdentifierIsNotAnInteger) {
  static_assert(!std::is_convertible_v<decltype(MENU_CFS), int>);
  static_assert(!std::is_constructible_v<std::string_view, int>);
  EXPECT_NE(MENU_CFS, std::string_view("\x03", 1));
}

TEST(AppConstTest, BadgeIdentifiers) {
  EXPECT_EQ(statusNone, "");
  EXPECT_EQ(statusFailure, "SKIPPED");
  EXPECT_EQ(statusInProgress, "PENDING");
  EXPECT_EQ(statusSynced, "SYNCED");
}

TEST(AppConstTest, StatusMapHoldsExactlyFourCodes) {
  EXPECT_THAT(statusMap(), ElementsAre(Pair(-1, ""), Pair(0, "SKIPPED"), Pair(1, "PENDING"), Pair(2, "SYNCED")));
}

TEST(AppConstTest, CodeMinusOneIsTheEmptyIdentifierAndNotAbsent) {
  const auto found = statusMap().find(-1);
  ASSERT_NE(found, statusMap().end());
  EXPECT_EQ(found->second, "");
}

TEST(AppConstTest, OtherCodesAreAbsentFromTheStatusMap) {
  for (const StatusCode code : {StatusCode{-2}, StatusCode{3}, StatusCode{4}, std::numeric_limits<StatusCode>::min(),
                                std::numeric_limits<StatusCode>::max(), (StatusCode{1} << 32) + 2}) {
    EXPECT_FALSE(statusMap().contains(code)) << code;
  }
}

}  // namespace
}  // namespace vornet
