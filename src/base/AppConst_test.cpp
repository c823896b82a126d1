#include "base/AppConst.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace vornet {
namespace {

using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::Pair;

TEST(AppConstTest, HoldsNineTextsInTheirOrderInTheSharedRecordAndInEachNewOne) {
  const auto inOrder =
      FieldsAre(App().APP_GROUP, App().APP_CODENAME, App().UNIX_SOCKET, App().SYNC_DB_NAME, App().CONFIG_DB_NAME,
                App().KELVANE_PLIST, App().PLC_REST_HOST, App().LOG_FILE, App().DEFAULT_LOG_LEVEL);
  EXPECT_THAT(App(), inOrder);
  EXPECT_THAT(AppConst(), inOrder);
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

TEST(AppConstTest, MenuIdentifiersAreTextsOfOneCharacterAndNotIntegers) {
  EXPECT_EQ(MENU_SHARE_AS_LINK, "1");
  EXPECT_EQ(MENU_COPY_LINK, "2");
  EXPECT_EQ(MENU_CFS, "3");
  EXPECT_EQ(MENU_VIEW_NOTES, "4");
  EXPECT_EQ(MENU_VIEW_VERSIONS, "5");
  static_assert(!std::is_convertible_v<decltype(MENU_CFS), int>);
}

TEST(AppConstTest, BadgeIdentifiers) {
  EXPECT_EQ(statusNone, "");
  EXPECT_EQ(statusFailure, "SKIPPED");
  EXPECT_EQ(statusInProgress, "PENDING");
  EXPECT_EQ(statusSynced, "SYNCED");
}

TEST(AppConstTest, StatusMapHoldsExactlyFourCodesOfWhichMinusOneHasTheEmptyIdentifier) {
  EXPECT_THAT(statusMap(), ElementsAre(Pair(-1, ""), Pair(0, "SKIPPED"), Pair(1, "PENDING"), Pair(2, "SYNCED")));
}

}  // namespace
}  // namespace vornet
