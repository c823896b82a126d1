#include "rest/MenuActions.hpp"

#include <gmock/gmock.h>

#include <atomic>

#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Paths = std::vector<std::string>;
using Enabled = std::map<std::string, bool>;

class MenuTest : public testing::Test {
 protected:
  /// Answers every request with `reply`.
  void serve(const WireReply& reply) {
    server_.emplace([reply](const WireRequest&) { return reply; });
  }

  LogRecorder log_;
  std::optional<LoopbackServer> server_;
  Menu menu_;
};

using MenuDeathTest = MenuTest;

TEST_F(MenuTest, AsksForTheSelectionInItsOrderWithItsDuplicates) {
  serve({.body = "{}"});
  menu_.menuEnabledDict({"/b", "/a/", "/b"});
  ASSERT_THAT(server_->requests(), SizeIs(1));
  const auto request = server_->requests()[0];
  EXPECT_EQ(request.target, "/mac_populate_menu");
  EXPECT_EQ(request.body, R"({"paths":["/b","/a/","/b"]})");
  EXPECT_THAT(request.header("Accept"), ElementsAre("application/json"));
  EXPECT_THAT(request.header("Content-Type"), ElementsAre("application/json"));
}

TEST_F(MenuTest, ReturnsExactlyTheEntriesOfTheReply) {
  const std::map<std::string, Enabled> replies = {{R"({"1": true, "2": false})", {{"1", true}, {"2", false}}},
                                                  {"{}", {}}};
  for (const auto& [body, entries] : replies) {
    serve({.body = body});
    EXPECT_EQ(menu_.menuEnabledDict({"/a"}), entries) << body;
  }
}

TEST_F(MenuTest, SendsARequestForFifteenItemsAndNoneForSixteenOrZero) {
  serve({.body = R"({"1":true})"});
  for (const std::size_t count : {1, 15}) EXPECT_THAT(menu_.menuEnabledDict(Paths(count, "/a")), SizeIs(1)) << count;
  EXPECT_THAT(log_.messages(LogLevel::Info), IsEmpty());
  for (const std::size_t count : {16, 0}) {
    log_.clear();
    EXPECT_THAT(menu_.menuEnabledDict(Paths(count, "/a")), IsEmpty()) << count;
    EXPECT_THAT(log_.messages(LogLevel::Info), ElementsAre("No selected or too many items")) << count;
  }
  EXPECT_THAT(server_->requests(), SizeIs(2));
}

TEST_F(MenuTest, LogsTheSelectionAndTheBytesOfTheReply) {
  serve({.body = R"({"1":true})"});
  menu_.menuEnabledDict({"/a b", "/\"q\"\n"});
  EXPECT_THAT(log_.messages(LogLevel::Debug), ElementsAre(R"(Requesting menu status for: ["/a b", "/\"q\"\n"])",
                                                          "Menu status: <7b223122 3a747275 657d>"));
}

TEST_F(MenuTest, AnswersWithNothingAndAWarningOnAFailure) {
  const auto expectFailure = [this](const char* failure, const testing::Matcher<std::string>& warning) {
    EXPECT_THAT(menu_.menuEnabledDict({"/a"}), IsEmpty()) << failure;
    EXPECT_THAT(log_.messages(LogLevel::Warning), ElementsAre(warning)) << failure;
    log_.clear();
  };
  expectFailure("the sync application is down", "Cannot populate context menu: ResourceUnavailable");
  serve({.status = 500});
  expectFailure("another status", "Cannot populate context menu: Non200Error(500)");
  for (const char* notJSON : {"", "no json", "{\"1\":tr", "true", "{} {}"}) {
    serve({.body = notJSON});
    expectFailure(notJSON, testing::StartsWith("Cannot populate context menu: "));
  }
}

TEST_F(MenuTest, AReplyWithMoreEntriesThanAMenuCanHaveIsAFailure) {
  std::string entries = "\"x\":false";
  for (int i = 1; i < 1000; ++i) entries += ",\"" + std::to_string(i) + "\":true";
  serve({.body = "{" + entries + "}"});
  EXPECT_THAT(menu_.menuEnabledDict({"/a"}), SizeIs(1000));
  EXPECT_THAT(log_.messages(LogLevel::Warning), IsEmpty());
  serve({.body = "{" + entries + ",\"1000\":true}"});
  EXPECT_THAT(menu_.menuEnabledDict({"/a"}), IsEmpty());
  EXPECT_THAT(log_.messages(LogLevel::Warning),
              ElementsAre("Cannot populate context menu: Error(\"too many entries\")"));
}

TEST_F(MenuDeathTest, AReplyOfAnotherShapeStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto askForMenu = [this](const char* body) {
    serve({.body = body});
    menu_.menuEnabledDict({"/a"});
  };
  for (const char* body : {R"({"1":true,"2":1})", R"({"1":"true"})", R"({"1":null})", R"({"1":{}})", "[true]"})
    EXPECT_DEATH(askForMenu(body), "Fatal error: the menu's reply") << body;
}

TEST_F(MenuTest, EachActionSendsItsIdentifierAsATextWithThePathsInOrder) {
  const std::pair<void (Menu::*)(const Paths&) const, std::string> actions[] = {{&Menu::shareAsLink, "1"},
                                                                                {&Menu::copyLink, "2"},
                                                                                {&Menu::viewInCloud, "3"},
                                                                                {&Menu::viewNotes, "4"},
                                                                                {&Menu::viewVersions, "5"}};
  for (const auto& [action, identifier] : actions) {
    serve({});
    (menu_.*action)({"/b", "/a/", "/b"});
    ASSERT_THAT(server_->requests(), SizeIs(1));
    const auto request = server_->requests()[0];
    EXPECT_EQ(request.target, "/select_context_menu");
    EXPECT_EQ(request.body, "{\"uid\":\"" + identifier + R"(","paths":["/b","/a/","/b"]})");
    EXPECT_THAT(request.header("Accept"), IsEmpty());
  }
}

TEST_F(MenuTest, ActionsAreNotLimitedInTheNumberOfItems) {
  serve({});
  menu_.shareAsLink({});
  menu_.shareAsLink(Paths(16, "/a"));
  ASSERT_THAT(server_->requests(), SizeIs(2));
  EXPECT_EQ(server_->requests()[0].body, R"({"uid":"1","paths":[]})");
}

TEST_F(MenuTest, AnActionsReplyIsNotRead) {
  for (const char* body : {"", "no json", "[1]"}) {
    serve({.body = body});
    menu_.copyLink({"/a"});
    EXPECT_THAT(log_.messages(), IsEmpty()) << body;
  }
}

TEST_F(MenuTest, AnActionThatIsRefusedOrNotAnsweredIsLogged) {
  menu_.viewNotes({"/a"});
  serve({.status = 404});
  menu_.viewInCloud({"/a"});
  EXPECT_THAT(log_.messages(LogLevel::Warning),
              ElementsAre("Unexpected error occured while fetching context menu: ResourceUnavailable",
                          "Cannot fetch context menu actions, unexpected status: 404"));
}

TEST_F(MenuTest, TheSyncedFolderMayBeSetAndReadAtTheSameTime) {
  const std::string names[] = {"/" + std::string(100, 'a'), "/" + std::string(200, 'b')};
  std::atomic<int> wrong{0};
  inParallel(4, [&](std::size_t thread) {
    for (std::size_t i = 0; i < 2000; ++i)
      if (thread < 2)
        menu_.setRootDir(platform::FileURL::fileURLWithPath(names[(thread + i) % 2]));
      else if (const auto root = menu_.rootDir())
        wrong += root->path() != names[0] && root->path() != names[1];
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(MenuTest, TheSyncedFolderIsAbsentUntilItIsSet) {
  EXPECT_FALSE(menu_.rootDir());
  menu_.setRootDir(platform::FileURL::fileURLWithPath("/R"));
  EXPECT_EQ(menu_.rootDir(), platform::FileURL::fileURLWithPath("/R"));
}

}  // namespace
}  // namespace vornet::test
