#include "kelvane-sim/Commands.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "kelvane-sim/RawClient.hpp"
#include "kelvane-sim/SimTest.hpp"

namespace vornet::sim {
namespace {

namespace json = boost::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::RawClient;
using testing::SimTest;
using testing::SOON;

class CommandsTest : public SimTest {
 protected:
  void startWithFiles() {
    files_.makeFolder("/root/a/sub");
    files_.write("/root/a/x", "1");
    files_.write("/root/a/no?", "1");
    files_.write("/root/a/caf\xC3\xA9 'q' & z", "1");
    start();
    ASSERT_TRUE(sim_->waitUntilIdle(SOON));
  }
  int statusOf(const std::string& command, const std::string& body) const {
    const auto reply = post(command, body);
    if (!reply) return -1;
    EXPECT_TRUE(json::parse(reply->body).is_object());
    EXPECT_EQ(json::parse(reply->body).as_object().contains("error"), reply->status != 200);
    return reply->status;
  }
};

TEST_F(CommandsTest, IconsOfAFolderAreThoseOfItsDirectChildren) {
  startWithFiles();
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/a/"})"),
            (json::value{{"/a/sub", 2}, {"/a/x", 2}, {"/a/no?", 0}, {"/a/caf\xC3\xA9 'q' & z", 2}}));
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/"})"), (json::value{{"/a", 0}}));
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/a/sub/"})"), json::value(json::object()));
}

TEST_F(CommandsTest, IconsOfWhatIsNoFolderAre404) {
  startWithFiles();
  EXPECT_EQ(statusOf("get_icons_for_folder", R"({"dir_name":"/b/"})"), 404);
  EXPECT_EQ(statusOf("get_icons_for_folder", R"({"dir_name":"/a/x/"})"), 404);
  EXPECT_EQ(statusOf("get_icons_for_folder", R"({"dir_name":"/../"})"), 404);
}

TEST_F(CommandsTest, TheMenuFollowsTheSelection) {
  startWithFiles();
  EXPECT_EQ(ask("mac_populate_menu", R"({"paths":["/a/x"]})"),
            (json::value{{"1", true}, {"2", true}, {"3", true}, {"4", true}, {"5", true}}));
  EXPECT_EQ(ask("mac_populate_menu", R"({"paths":["/a/sub/"]})"),
            (json::value{{"1", true}, {"2", true}, {"3", true}, {"4", true}, {"5", false}}));
  EXPECT_EQ(ask("mac_populate_menu", R"({"paths":["/a/x","/a/sub/"]})"),
            (json::value{{"1", true}, {"2", false}, {"3", true}, {"4", false}, {"5", false}}));
  const json::value nothing{{"1", false}, {"2", false}, {"3", false}, {"4", false}, {"5", false}};
  for (const char* body :
       {R"({"paths":[]})", R"({"paths":["/a/no?"]})", R"({"paths":["/a/x","/gone"]})", R"({"paths":["/a/x/"]})"}) {
    EXPECT_EQ(ask("mac_populate_menu", body), nothing) << body;
  }
  sim_->setStatus("/a/x", CODE_PENDING);
  EXPECT_EQ(ask("mac_populate_menu", R"({"paths":["/a/x"]})"),
            (json::value{{"1", true}, {"2", true}, {"3", true}, {"4", true}, {"5", false}}));
  sim_->setStatus("/a/x", 7);
  EXPECT_EQ(ask("mac_populate_menu", R"({"paths":["/a/x"]})"), nothing);
}

TEST_F(CommandsTest, AChosenActionIsAnsweredAndGoesIntoTheJournal) {
  auto chosen = options();
  chosen.state = files_.path("/state");
  start(chosen);
  EXPECT_EQ(ask("select_context_menu", R"({"uid":"2","paths":["/b","/a/","/b"]})"), json::value(json::object()));
  ASSERT_TRUE(sim_->waitForActions(1, SOON));
  const auto actions = sim_->actions();
  ASSERT_EQ(actions.size(), 1U);
  EXPECT_EQ(actions[0].name, "Copy Link");
  EXPECT_THAT(actions[0].paths, ElementsAre("/b", "/a/", "/b"));
  const auto journal = ActionJournal(files_.path("/state")).read();
  ASSERT_EQ(journal.size(), 1U);
  EXPECT_EQ(journal[0].uid, "2");
  EXPECT_EQ(journal[0].time, actions[0].time);
}

TEST_F(CommandsTest, AJournalThatCannotBeWrittenIsAServerError) {
  start();
  files_.makeFolder("/container/actions.jsonl");
  EXPECT_EQ(statusOf("select_context_menu", R"({"uid":"2","paths":["/b"]})"), 500);
  EXPECT_TRUE(sim_->actions().empty());
}

TEST_F(CommandsTest, MalformedRequestsAre400AndChangeNothing) {
  start();
  for (const char* body : {"", "{", "[]", "1", R"({"dir_name":1})", R"({"dir":"/"})", R"({"dir_name":"a/"})",
                           R"({"dir_name":"/a"})", R"({"dir_name":""})", "{\"dir_name\":\"/\xFF/\"}"}) {
    EXPECT_EQ(statusOf("get_icons_for_folder", body), 400) << body;
  }
  for (const char* body : {"", R"({"paths":"/a"})", R"({"paths":[1]})", R"({"paths":["a"]})", R"({})", R"(["/a"])"})
    EXPECT_EQ(statusOf("mac_populate_menu", body), 400) << body;
  for (const char* body : {"{}", R"({"uid":"2"})", R"({"uid":2,"paths":["/a"]})", R"({"uid":"6","paths":["/a"]})",
                           R"({"uid":"0","paths":["/a"]})", R"({"uid":"12","paths":["/a"]})", R"({"paths":["/a"]})",
                           R"({"uid":"2","paths":[]})", R"({"uid":"2","paths":["a"]})"}) {
    EXPECT_EQ(statusOf("select_context_menu", body), 400) << body;
  }
  EXPECT_EQ(statusOf("get_icons_for_folder", std::string(100'000, '[')), 400);
  EXPECT_TRUE(sim_->actions().empty());
  EXPECT_EQ(statusOf("get_icons_for_folder", R"({"dir_name":"/"})"), 200);
}

TEST_F(CommandsTest, OtherTargetsAre404AndOtherMethods405) {
  start();
  EXPECT_EQ(statusOf("", "{}"), 404);
  EXPECT_EQ(statusOf("get_icons", "{}"), 404);
  EXPECT_EQ(statusOf("get_icons_for_folder/", "{}"), 404);
  httplib::Client client("127.0.0.1", sim_->port());
  const auto reply = client.Get("/get_icons_for_folder");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->status, 405);
}

TEST_F(CommandsTest, OneConnectionServesManyRequests) {
  startWithFiles();
  RawClient client(sim_->port());
  for (int i = 0; i < 3; ++i) {
    client.post("get_icons_for_folder", R"({"dir_name":"/"})");
    EXPECT_EQ(client.readReply(), R"({"/a":0})");
  }
  // And takes them one after the other when they come together, or in pieces.
  client.post("get_icons_for_folder", R"({"dir_name":"/"})");
  client.post("get_icons_for_folder", R"({"dir_name":"/a/sub/"})");
  EXPECT_EQ(client.readReply(), R"({"/a":0})");
  EXPECT_EQ(client.readReply(), "{}");
  client.send("POST /get_icons_for_folder HTTP/1.1\r\nHost: x\r\nContent-");
  client.send("Length: 16\r\n\r\n{\"dir_name");
  client.send("\":\"/\"}");
  EXPECT_EQ(client.readReply(), R"({"/a":0})");
}

TEST_F(CommandsTest, AClientThatAsksToCloseIsClosed) {
  start();
  RawClient client(sim_->port());
  client.send(
      "POST /get_icons_for_folder HTTP/1.1\r\nConnection: close\r\nContent-Length: 16\r\n\r\n{\"dir_name\":\"/\"}");
  EXPECT_EQ(client.readAll(), RawClient::End::closed);
  EXPECT_THAT(client.received, HasSubstr("Connection: close\r\n"));
  EXPECT_THAT(client.received, HasSubstr("\r\n\r\n{}"));
}

TEST_F(CommandsTest, BytesThatAreNoHttpAreAnswered400AndClosed) {
  start();
  RawClient client(sim_->port());
  client.send("what is this\r\n\r\n");
  EXPECT_EQ(client.readAll(), RawClient::End::closed);
  EXPECT_TRUE(client.received.starts_with("HTTP/1.1 400 ")) << client.received;
}

TEST_F(CommandsTest, ABodyBeyondTheLimitIs413) {
  start();
  RawClient client(sim_->port());
  client.send("POST /get_icons_for_folder HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n");
  EXPECT_EQ(client.readAll(), RawClient::End::closed);
  EXPECT_TRUE(client.received.starts_with("HTTP/1.1 413 ")) << client.received;
}

TEST_F(CommandsTest, AClientThatWaitsForContinueGetsIt) {
  start();
  RawClient client(sim_->port());
  client.send("POST /get_icons_for_folder HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 16\r\n\r\n");
  client.readUntil([](const std::string& text) { return text.find("\r\n\r\n") != std::string::npos; });
  EXPECT_EQ(client.received, "HTTP/1.1 100 Continue\r\n\r\n");
  client.received.clear();
  client.send("{\"dir_name\":\"/\"}");
  EXPECT_EQ(client.readReply(), "{}");
}

TEST_F(CommandsTest, AFolderOfTenThousandEntriesIsAnsweredWhole) {
  constexpr int COUNT = 10'000;
  files_.makeFolder("/root/big");
  for (int i = 0; i < COUNT; ++i) files_.write("/root/big/file-" + std::to_string(i), "");
  start();
  ASSERT_TRUE(sim_->waitUntilIdle(SOON));
  const auto entries = ask("get_icons_for_folder", R"({"dir_name":"/big/"})").as_object();
  EXPECT_EQ(entries.size(), static_cast<std::size_t>(COUNT));
  EXPECT_EQ(entries.at("/big/file-9999").as_int64(), 2);
  // The folder above costs one entry, not ten thousand.
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/"})"), (json::value{{"/big", 2}}));
  EXPECT_EQ(testing::rowsOf(files_.path("/container/sync.db")).size(), static_cast<std::size_t>(COUNT) + 2);
}

TEST_F(CommandsTest, ManyClientsAreServedTogether) {
  startWithFiles();
  std::atomic<int> good = 0;
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c) {
    clients.emplace_back([&] {
      httplib::Client client("127.0.0.1", sim_->port());
      client.set_keep_alive(true);
      for (int i = 0; i < 50; ++i) {
        const auto reply = client.Post("/get_icons_for_folder", R"({"dir_name":"/"})", "application/json");
        if (reply && reply->body == R"({"/a":0})") ++good;
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(good, 400);
}

TEST_F(CommandsTest, MoreClientsThanThreadsWaitTheirTurn) {
  start();
  std::vector<std::unique_ptr<RawClient>> idle;
  for (std::size_t i = 0; i < HttpServer::MAX_CONNECTIONS; ++i) {
    idle.push_back(std::make_unique<RawClient>(sim_->port()));
    idle.back()->post("get_icons_for_folder", R"({"dir_name":"/"})");
    EXPECT_EQ(idle.back()->readReply(), "{}");
  }
  RawClient late(sim_->port());
  late.post("get_icons_for_folder", R"({"dir_name":"/"})");
  idle.clear();
  EXPECT_EQ(late.readReply(), "{}");
}

}  // namespace
}  // namespace vornet::sim
