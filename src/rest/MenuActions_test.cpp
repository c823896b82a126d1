#include "rest/MenuActions.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "paths/JSON.hpp"
#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"

namespace vornet {
namespace {

using test::LogRecorder;
using test::LoopbackServer;
using test::WireReply;
using test::WireRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Paths = std::vector<std::string>;
using Answer = std::map<std::string, bool>;

LoopbackServer::Answer always(WireReply reply) {
  return [reply](const WireRequest&) { return reply; };
}

TEST(Menu, AsksForTheSelectionInItsOrderWithItsDuplicates) {
  const LoopbackServer server(always({.body = "{}"}));
  Menu().menuEnabledDict({"/b", "/a/", "/b"});
  ASSERT_EQ(server.requests().size(), 1u);
  const auto request = server.requests()[0];
  EXPECT_EQ(request.target, "/mac_populate_menu");
  EXPECT_EQ(request.body, R"({"paths":["/b","/a/","/b"]})");
  EXPECT_THAT(request.header("Accept"), ElementsAre("application/json"));
  EXPECT_THAT(request.header("Content-Type"), ElementsAre("application/json"));
}

TEST(Menu, ReturnsExactlyTheEntriesOfTheReply) {
  const LoopbackServer server(always({.body = R"({"1": true, "2": false})"}));
  EXPECT_EQ(Menu().menuEnabledDict({"/a"}), (Answer{{"1", true}, {"2", false}}));
}

TEST(Menu, SendsARequestForFifteenItemsAndNoneForSixteenOrZero) {
  const LoopbackServer server(always({.body = R"({"1":true})"}));
  const LogRecorder log;
  EXPECT_THAT(Menu().menuEnabledDict(Paths(1, "/a")), testing::SizeIs(1));
  EXPECT_THAT(Menu().menuEnabledDict(Paths(15, "/a")), testing::SizeIs(1));
  EXPECT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(log.count(LogLevel::Info, "No selected or too many items"), 0u);
  EXPECT_THAT(Menu().menuEnabledDict(Paths(16, "/a")), IsEmpty());
  EXPECT_EQ(log.count(LogLevel::Info, "No selected or too many items"), 1u);
  EXPECT_THAT(Menu().menuEnabledDict({}), IsEmpty());
  EXPECT_EQ(log.count(LogLevel::Info, "No selected or too many items"), 2u);
  EXPECT_EQ(server.requests().size(), 2u);
}

TEST(Menu, LogsTheSelectionAndTheBytesOfTheReply) {
  const LoopbackServer server(always({.body = R"({"1":true})"}));
  const LogRecorder log;
  Menu().menuEnabledDict({"/a b", "/\"q\"\n"});
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre(R"(Requesting menu status for: ["/a b", "/\"q\"\n"])",
                                                         "Menu status: <7b223122 3a747275 657d>"));
}

TEST(Menu, AnswersWithNothingWhenTheSyncApplicationIsDown) {
  const LogRecorder log;
  EXPECT_THAT(Menu().menuEnabledDict({"/a"}), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre("Cannot populate context menu: ResourceUnavailable"));
}

TEST(Menu, AnswersWithNothingOnAnotherStatus) {
  const LoopbackServer server(always({.status = 500}));
  const LogRecorder log;
  EXPECT_THAT(Menu().menuEnabledDict({"/a"}), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre("Cannot populate context menu: Non200Error(500)"));
}

TEST(Menu, AnswersWithNothingWhenTheReplyIsNotJSON) {
  for (const char* body : {"", "no json", "{\"1\":tr", "true", "{} {}"}) {
    const LoopbackServer server(always({.body = body}));
    const LogRecorder log;
    EXPECT_THAT(Menu().menuEnabledDict({"/a"}), IsEmpty()) << body;
    EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(testing::StartsWith("Cannot populate context menu: ")))
        << body;
  }
}

TEST(Menu, AReplyWithMoreEntriesThanAMenuCanHaveIsAFailure) {
  const auto replyOf = [](int entries) {
    std::string body = "{\"x\":false";
    for (int i = 1; i < entries; ++i) body += ",\"" + std::to_string(i) + "\":true";
    return WireReply{.body = body + "}"};
  };
  LoopbackServer server(always(replyOf(1000)));
  const LogRecorder log;
  EXPECT_THAT(Menu().menuEnabledDict({"/a"}), testing::SizeIs(1000));
  EXPECT_THAT(log.messages(LogLevel::Warning), IsEmpty());
  server.setAnswer(always(replyOf(1001)));
  EXPECT_THAT(Menu().menuEnabledDict({"/a"}), IsEmpty());
  EXPECT_THAT(log.messages(LogLevel::Warning),
              ElementsAre("Cannot populate context menu: Error(\"too many entries\")"));
}

TEST(Menu, AnEmptyObjectEnablesNothing) {
  const LoopbackServer server(always({.body = "{}"}));
  EXPECT_THAT(Menu().menuEnabledDict({"/a"}), IsEmpty());
}

TEST(MenuDeathTest, AReplyOfAnotherShapeStopsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  for (const char* body : {R"({"1":true,"2":1})", R"({"1":"true"})", R"({"1":null})", R"({"1":{}})", "[true]"}) {
    EXPECT_DEATH(
        {
          const LoopbackServer server(always({.body = body}));
          Menu().menuEnabledDict({"/a"});
        },
        "Fatal error: the menu's reply")
        << body;
  }
}

struct Action {
  void (Menu::*operation)(const Paths&) const;
  const char* identifier;
};
const Action ACTIONS[] = {{&Menu::shareAsLink, "1"},
                          {&Menu::copyLink, "2"},
                          {&Menu::viewInCloud, "3"},
                          {&Menu::viewNotes, "4"},
                          {&Menu::viewVersions, "5"}};

TEST(Menu, EachActionSendsItsIdentifierAsATextWithThePathsInOrder) {
  for (const auto& action : ACTIONS) {
    const LoopbackServer server(always({}));
    (Menu().*action.operation)({"/b", "/a/", "/b"});
    ASSERT_EQ(server.requests().size(), 1u);
    const auto request = server.requests()[0];
    EXPECT_EQ(request.target, "/select_context_menu");
    EXPECT_EQ(request.body, "{\"uid\":\"" + std::string(action.identifier) + R"(","paths":["/b","/a/","/b"]})");
    EXPECT_THAT(request.header("Accept"), IsEmpty());
  }
}

TEST(Menu, ActionsAreNotLimitedInTheNumberOfItems) {
  const LoopbackServer server(always({}));
  Menu().shareAsLink({});
  Menu().shareAsLink(Paths(16, "/a"));
  EXPECT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(server.requests()[0].body, R"({"uid":"1","paths":[]})");
}

TEST(Menu, AnActionsReplyIsNotRead) {
  for (const char* body : {"", "no json", "[1]"}) {
    const LoopbackServer server(always({.body = body}));
    const LogRecorder log;
    Menu().copyLink({"/a"});
    EXPECT_THAT(log.messages(), IsEmpty()) << body;
  }
}

TEST(Menu, AnActionRefusedByStatusIsLoggedWithIt) {
  const LoopbackServer server(always({.status = 404}));
  const LogRecorder log;
  Menu().viewInCloud({"/a"});
  EXPECT_THAT(log.messages(LogLevel::Warning),
              ElementsAre("Cannot fetch context menu actions, unexpected status: 404"));
}

TEST(Menu, AnActionWithoutSyncApplicationIsLogged) {
  const LogRecorder log;
  Menu().viewNotes({"/a"});
  EXPECT_THAT(log.messages(LogLevel::Warning),
              ElementsAre("Unexpected error occured while fetching context menu: ResourceUnavailable"));
}

TEST(Menu, TheSyncedFolderMayBeSetAndReadAtTheSameTime) {
  Menu menu;
  const std::string names[] = {"/" + std::string(100, 'a'), "/" + std::string(200, 'b')};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::size_t i = 0; i < 2000; ++i)
        if (thread < 2)
          menu.setRootDir(platform::FileURL::fileURLWithPath(names[(thread + i) % 2]));
        else if (const auto root = menu.rootDir())
          wrong += root->path() != names[0] && root->path() != names[1];
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST(Menu, TheSyncedFolderIsAbsentUntilItIsSet) {
  Menu menu;
  EXPECT_FALSE(menu.rootDir());
  menu.setRootDir(platform::FileURL::fileURLWithPath("/R"));
  EXPECT_EQ(menu.rootDir(), platform::FileURL::fileURLWithPath("/R"));
}

}  // namespace
}  // namespace vornet
