#include "Status.hpp"

#include <gtest/gtest.h>

#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"

namespace vornet::vi {
namespace {

using Outcome = SyncApplicationState::Outcome;
using test::LoopbackServer;
using test::WireReply;
using test::WireRequest;

/// A sync application that answers each request with `reply`, on any free port.
class SyncApplicationTest : public ::testing::Test {
 protected:
  SyncApplicationState askOneThatAnswers(const WireReply& reply) {
    const LoopbackServer server([reply](const WireRequest&) { return reply; }, 0);
    const auto state = askSyncApplication(addressOf(server));
    requests = server.requests();
    return state;
  }
  static std::string addressOf(const LoopbackServer& server) { return "127.0.0.1:" + std::to_string(server.port()); }

  std::vector<WireRequest> requests;
};

TEST_F(SyncApplicationTest, PostsTheSameRequestAsTheExtension) {
  const auto state = askOneThatAnswers({.body = "{}"});
  EXPECT_EQ(state.outcome, Outcome::answers);
  EXPECT_EQ(state.httpStatus, 200);
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/get_icons_for_folder");
  EXPECT_EQ(requests[0].header("Content-Type"), std::vector<std::string>{"application/json"});
  EXPECT_EQ(requests[0].body, R"({"dir_name":"/"})");
}

TEST_F(SyncApplicationTest, AnyStatusIsAnAnswer) {
  const auto state = askOneThatAnswers({.status = 500});
  EXPECT_EQ(state.outcome, Outcome::answers);
  EXPECT_EQ(state.httpStatus, 500);
}

TEST_F(SyncApplicationTest, ProxiesOfTheEnvironmentAreIgnored) {
  const test::ScopedVariable proxy("http_proxy", "http://127.0.0.1:1");
  const test::ScopedVariable proxyForAll("ALL_PROXY", "http://127.0.0.1:1");
  EXPECT_EQ(askOneThatAnswers({}).outcome, Outcome::answers);
}

TEST_F(SyncApplicationTest, AClosedPortIsARefusal) {
  std::string address;
  {
    const LoopbackServer server([](const WireRequest&) { return WireReply(); }, 0);
    address = addressOf(server);
  }
  EXPECT_EQ(askSyncApplication(address).outcome, Outcome::refused);
}

TEST_F(SyncApplicationTest, SilenceIsATimeOut) {
  EXPECT_EQ(askOneThatAnswers({.manner = WireReply::Manner::stall}).outcome, Outcome::timedOut);
}

TEST_F(SyncApplicationTest, AReplyThatIsNotHTTPIsAFailure) {
  const auto state = askOneThatAnswers({.raw = "SSH-2.0-x\r\n"});
  EXPECT_EQ(state.outcome, Outcome::failed);
  EXPECT_FALSE(state.problem.empty());
}

}  // namespace
}  // namespace vornet::vi
