#include "kelvane-sim/Fault.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "kelvane-sim/RawClient.hpp"
#include "kelvane-sim/SimTest.hpp"

namespace vornet::sim {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using testing::RawClient;
using testing::SimTest;
using testing::SOON;

constexpr const char* ICONS = R"({"dir_name":"/"})";

class FaultTest : public SimTest {
 protected:
  FaultTest() {
    files_.write("/root/x", "1");
    files_.write("/root/y", "1");
    start();
    EXPECT_TRUE(sim_->waitUntilIdle(SOON));
  }
  json::value icons() const { return ask("get_icons_for_folder", ICONS); }
  json::value menu() const { return ask("mac_populate_menu", R"({"paths":["/x"]})"); }
  RawClient asking() const {
    RawClient client(sim_->port());
    client.post("get_icons_for_folder", ICONS);
    return client;
  }
  const json::value good_{{"/x", 2}, {"/y", 2}};
};

TEST_F(FaultTest, RefuseClosesThePortAndDropsClientsUntilItIsOver) {
  RawClient kept = asking();
  kept.readReply();
  sim_->setFault(Fault::REFUSE);
  EXPECT_EQ(RawClient(sim_->port()).connectError(), ECONNREFUSED);
  EXPECT_EQ(kept.readAll(), RawClient::End::closed);
  const auto port = sim_->port();
  sim_->setFault(Fault::NONE);
  EXPECT_EQ(sim_->port(), port);
  EXPECT_EQ(icons(), good_);
}

TEST_F(FaultTest, AFaultWithADurationEndsByItself) {
  sim_->setFault(Fault::REFUSE, 20ms);
  int error = ECONNREFUSED;
  const auto deadline = std::chrono::steady_clock::now() + SOON;
  while (error != 0 && std::chrono::steady_clock::now() < deadline) error = RawClient(sim_->port()).connectError();
  EXPECT_EQ(error, 0);
  sim_->setFault(Fault::SERVER_ERROR, 20ms);
  int status = 500;
  while (status != 200 && std::chrono::steady_clock::now() < deadline)
    status = post("get_icons_for_folder", ICONS)->status;
  EXPECT_EQ(status, 200);
}

TEST_F(FaultTest, RefuseHoldsOverARestart) {
  sim_->setFault(Fault::REFUSE);
  sim_->stop();
  sim_->start();
  EXPECT_EQ(RawClient(sim_->port()).connectError(), ECONNREFUSED);
  sim_->setFault(Fault::NONE);
  EXPECT_EQ(icons(), good_);
}

TEST_F(FaultTest, StallReadsTheRequestAndSaysNothing) {
  sim_->setFault(Fault::STALL);
  RawClient client = asking();
  ASSERT_TRUE(sim_->waitForRequest("get_icons_for_folder", SOON));
  EXPECT_EQ(client.readUntil([](const std::string&) { return false; }, 200), RawClient::End::open);
  EXPECT_EQ(client.received, "");
}

TEST_F(FaultTest, DripSendsHeadersAndThenByteAfterByte) {
  sim_->setFault(Fault::DRIP);
  RawClient client = asking();
  const auto bodyOf = [](const std::string& text) {
    const auto end = text.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : text.substr(end + 4);
  };
  std::size_t pieces = 0;
  std::size_t last = 0;
  client.readUntil([&](const std::string& text) {
    const std::size_t size = bodyOf(text).size();
    if (size != last) ++pieces;
    last = size;
    return size >= 4;
  });
  EXPECT_TRUE(client.received.starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_GE(last, 4U);
  EXPECT_GE(pieces, 2U);
}

TEST_F(FaultTest, DripHeadersNeverEndsTheHeaders) {
  sim_->setFault(Fault::DRIP_HEADERS);
  RawClient client = asking();
  client.readUntil([](const std::string& text) { return text.ends_with("X-Drip: xxx"); });
  EXPECT_THAT(client.received, EndsWith("X-Drip: xxx"));
  EXPECT_EQ(client.received.find("\r\n\r\n"), std::string::npos);
}

TEST_F(FaultTest, ResetBreaksTheConnectionWithinTheBody) {
  sim_->setFault(Fault::RESET);
  RawClient client = asking();
  EXPECT_EQ(client.readAll(), RawClient::End::reset);
}

TEST_F(FaultTest, StatusFaultsAnswerWithTheirStatus) {
  sim_->setFault(Fault::NOT_FOUND);
  EXPECT_EQ(post("get_icons_for_folder", ICONS)->status, 404);
  sim_->setFault(Fault::SERVER_ERROR);
  EXPECT_EQ(post("mac_populate_menu", "{}")->status, 500);
}

TEST_F(FaultTest, BodiesThatAreNoJson) {
  sim_->setFault(Fault::NOT_JSON);
  auto reply = post("get_icons_for_folder", ICONS);
  EXPECT_EQ(reply->status, 200);
  boost::system::error_code error;
  json::parse(reply->body, error);
  EXPECT_TRUE(error);
  EXPECT_FALSE(reply->body.empty());
  sim_->setFault(Fault::EMPTY_BODY);
  reply = post("get_icons_for_folder", ICONS);
  EXPECT_EQ(reply->status, 200);
  EXPECT_EQ(reply->body, "");
  EXPECT_EQ(reply->get_header_value("Content-Length"), "0");
}

TEST_F(FaultTest, RepliesOfTheWrongShape) {
  sim_->setFault(Fault::ARRAY);
  EXPECT_EQ(icons(), json::parse(R"(["/x",2,"/y",2])"));
  EXPECT_TRUE(menu().is_array());
  sim_->setFault(Fault::STRING_VALUES);
  EXPECT_EQ(icons(), json::parse(R"({"/x":"2","/y":"2"})"));
  EXPECT_EQ(menu().at("1"), json::value("true"));
  sim_->setFault(Fault::NESTED);
  EXPECT_EQ(icons(), json::parse(R"({"/x":{"value":2},"/y":{"value":2}})"));
  EXPECT_EQ(menu().at("5"), json::parse(R"({"value":true})"));
  sim_->setFault(Fault::WRONG_VALUES);
  EXPECT_EQ(icons(), json::parse(R"({"/x":true,"/y":1.5})"));
  EXPECT_EQ(menu(), json::parse(R"({"1":1,"2":1,"3":1,"4":1,"5":1})"));
}

TEST_F(FaultTest, AnEmptyFolderGetsAnEntryThatCanBeWrong) {
  files_.makeFolder("/root/empty");
  ASSERT_TRUE(sim_->waitUntilIdle(SOON));
  sim_->setFault(Fault::STRING_VALUES);
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/empty/"})").as_object().size(), 1U);
}

TEST_F(FaultTest, HugeAddsAHundredThousandEntries) {
  sim_->setFault(Fault::HUGE_REPLY);
  const auto entries = icons().as_object();
  EXPECT_EQ(entries.size(), 100'002U);
  EXPECT_EQ(entries.at("/x"), json::value(2));
  EXPECT_EQ(entries.at("/entry-099999"), json::value(2));
  EXPECT_EQ(menu().as_object().size(), 100'005U);
}

TEST_F(FaultTest, AFaultCanBeOfOneCommand) {
  sim_->setFault("mac_populate_menu", Fault::SERVER_ERROR);
  EXPECT_EQ(icons(), good_);
  EXPECT_EQ(post("mac_populate_menu", R"({"paths":["/x"]})")->status, 500);
  sim_->setFault(Fault::NOT_FOUND);
  EXPECT_EQ(post("get_icons_for_folder", ICONS)->status, 404);
  EXPECT_EQ(post("mac_populate_menu", R"({"paths":["/x"]})")->status, 500);
  sim_->setFault("mac_populate_menu", Fault::NONE);
  sim_->setFault(Fault::NONE);
  EXPECT_TRUE(menu().is_object());
  EXPECT_THROW(sim_->setFault("mac_populate_menu", Fault::REFUSE), std::invalid_argument);
  EXPECT_THROW(sim_->setFault("unknown", Fault::STALL), std::invalid_argument);
}

TEST_F(FaultTest, OnlyAServerThatFailsLeavesTheActionUndone) {
  const std::string body = R"({"uid":"1","paths":["/x"]})";
  for (const Fault fault : {Fault::NOT_FOUND, Fault::SERVER_ERROR}) {
    sim_->setFault(fault);
    post("select_context_menu", body);
  }
  EXPECT_TRUE(sim_->actions().empty());
  sim_->setFault(Fault::RESET);
  EXPECT_FALSE(post("select_context_menu", body));
  sim_->setFault(Fault::EMPTY_BODY);
  post("select_context_menu", body);
  EXPECT_EQ(sim_->actions().size(), 2U);
}

TEST_F(FaultTest, StoppingDoesNotWaitForHeldClients) {
  RawClient idle(sim_->port());
  RawClient half(sim_->port());
  half.send("POST /get_icons_for_folder HTTP/1.1\r\nContent-Le");
  std::vector<RawClient> held;
  for (const Fault fault : {Fault::STALL, Fault::DRIP, Fault::DRIP_HEADERS}) {
    sim_->clearRequests();
    sim_->setFault(fault);
    held.push_back(asking());
    ASSERT_TRUE(sim_->waitForRequest("get_icons_for_folder", SOON));
  }
  // No client does anything from here on; only the server can end this.
  auto stopped = std::async(std::launch::async, [&] { sim_->stop(); });
  ASSERT_EQ(stopped.wait_for(SOON), std::future_status::ready);
  for (RawClient& client : held) EXPECT_NE(client.readAll(), RawClient::End::open);
}

TEST_F(FaultTest, AClientThatLeavesFreesItsConnection) {
  sim_->setFault(Fault::STALL);
  for (std::size_t i = 0; i < HttpServer::MAX_CONNECTIONS + 8; ++i) {
    sim_->clearRequests();
    const RawClient client = asking();
    ASSERT_TRUE(sim_->waitForRequest("get_icons_for_folder", SOON));
  }
}

TEST(FaultText, NamesAndDurationsAreRead) {
  for (const FaultName& name : FAULT_NAMES) {
    const auto request = parseFault(name.name);
    ASSERT_TRUE(request) << name.name;
    EXPECT_EQ(request->fault, name.fault);
    EXPECT_EQ(request->duration, 0ms);
  }
  const auto request = parseFault("404:2.5");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->fault, Fault::NOT_FOUND);
  EXPECT_EQ(request->duration, 2500ms);
}

TEST(FaultText, AnythingElseIsNoFault) {
  for (const char* text : {"", "stal", "STALL", "stall:", "stall:0", "stall:-1", "stall:x", "stall:1s", "stall:nan",
                           "stall:inf", "stall:1e99", "mac_populate_menu=stall"}) {
    EXPECT_FALSE(parseFault(text)) << text;
  }
}

}  // namespace
}  // namespace vornet::sim
