#include "rest/RESTClient.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "extension/AppConst.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"

namespace vornet {
namespace {

using test::LoopbackServer;
using test::WireReply;
using test::WireRequest;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Manner = WireReply::Manner;

LoopbackServer::Answer always(WireReply reply) {
  return [reply](const WireRequest&) { return reply; };
}

std::vector<std::string> headerNames(const WireRequest& request) {
  std::vector<std::string> names;
  for (const auto& [name, value] : request.headers) names.push_back(name);
  return names;
}

/// The error that a post throws; none when it throws none.
std::optional<HTTPError> errorOf(const std::function<void()>& post) {
  try {
    post();
  } catch (const HTTPError& error) {
    return error;
  }
  return std::nullopt;
}

std::optional<HTTPError> errorOfPost() {
  return errorOf([] { RESTClient::postAtPath("command", "{}"); });
}

TEST(RESTClient, PostsToTheBaseAddressOneSlashAndTheCommand) {
  const LoopbackServer server(always({.body = "{}"}));
  RESTClient::postAtPath("get_icons_for_folder", "{}");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].method, "POST");
  EXPECT_EQ(server.requests()[0].target, "/get_icons_for_folder");
  EXPECT_THAT(server.requests()[0].header("Host"), ElementsAre("127.0.0.1:8806"));
}

TEST(RESTClient, AppendsTheCommandUnescaped) {
  const LoopbackServer server(always({}));
  RESTClient::postAtPath("a/../b//c%41?d=/", "{}");
  EXPECT_EQ(server.requests()[0].target, "/a/../b//c%41?d=/");
}

TEST(RESTClient, ReturnsTheBodyOfA200Whole) {
  const std::string body = std::string("{\"a\0b\":1}", 9) + std::string(1'000'000, ' ');
  const LoopbackServer server(always({.body = body}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), body);
}

TEST(RESTClient, ReturnsEmptyDataForA200WithAnEmptyBody) {
  const LoopbackServer server(always({}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "");
}

TEST(RESTClient, SendsExactlyTheBodyAndOnlyContentTypeBesidesWhatHTTPNeeds) {
  const LoopbackServer server(always({}));
  const std::string body(100'000, 'x');  // long enough for a library to ask with "Expect" first
  RESTClient::postAtPath("command", body);
  const auto request = server.requests()[0];
  EXPECT_EQ(request.body, body);
  EXPECT_THAT(headerNames(request), UnorderedElementsAre("Host", "Content-Type", "Content-Length"));
  EXPECT_THAT(request.header("Content-Type"), ElementsAre("application/json"));
}

TEST(RESTClient, AddsTheCallersHeadersOnceEach) {
  const LoopbackServer server(always({}));
  RESTClient::postAtPath("command", "{}", RESTClient::Headers{{"Accept", "application/json"}, {"X-Empty", ""}});
  const auto request = server.requests()[0];
  EXPECT_THAT(request.header("Accept"), ElementsAre("application/json"));
  EXPECT_THAT(request.header("X-Empty"), ElementsAre(""));
  EXPECT_THAT(headerNames(request),
              UnorderedElementsAre("Host", "Content-Type", "Accept", "X-Empty", "Content-Length"));
}

TEST(RESTClient, SendsContentTypeTwiceWhenTheCallerNamesItAgain) {
  const LoopbackServer server(always({}));
  RESTClient::postAtPath("command", "{}", RESTClient::Headers{{"Content-Type", "text/plain"}});
  EXPECT_THAT(server.requests()[0].header("Content-Type"), ElementsAre("application/json", "text/plain"));
}

TEST(RESTClient, PostsWithoutABodyWhenThereIsNone) {
  const LoopbackServer server(always({.body = "ok"}));
  EXPECT_EQ(RESTClient::postAtPath("command", std::nullopt), "ok");
  const auto request = server.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, "");
  EXPECT_THAT(request.header("Content-Type"), ElementsAre("application/json"));
}

TEST(RESTClient, ThrowsNon200ErrorWithTheExactStatusAndDropsTheBody) {
  for (const int status : {404, 500, 201, 204, 302, 503}) {
    const LoopbackServer server(always({.status = status, .body = status == 204 ? "" : "{\"1\":true}"}));
    EXPECT_EQ(errorOfPost(), HTTPError::Non200Error(status)) << status;
  }
  EXPECT_EQ(HTTPStatusCode.OK, 200);
  EXPECT_EQ(HTTPStatusCode.NOT_FOUND, 404);
}

TEST(RESTClient, DoesNotFollowRedirects) {
  const LoopbackServer server(always({.status = 307, .headers = {{"Location", "http://127.0.0.1:8806/other"}}}));
  EXPECT_EQ(errorOfPost(), HTTPError::Non200Error(307));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST(RESTClient, ThrowsResourceUnavailableWhenTheSyncApplicationIsAbsent) {
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, IgnoresProxiesInTheEnvironment) {
  const LoopbackServer proxy(always({.body = "from the proxy"}), 0);
  const test::ScopedVariable lower("http_proxy", proxy.url(""));
  const test::ScopedVariable upper("ALL_PROXY", proxy.url(""));
  const LoopbackServer server(always({.body = "from the server"}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "from the server");
  EXPECT_TRUE(proxy.requests().empty());
}

/// Posts to a server that never finishes its answer. The time-out of 3 seconds is told from none at all by a bound that
/// is far from both: servers of this kind would go on for ever.
void expectGivesUp(Manner manner) {
  const LoopbackServer server(always({.body = std::string(1000, 'x'), .manner = manner}));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30));
  EXPECT_EQ(server.requests().size(), 1u) << "a request is not made again after its time-out";
}

TEST(RESTClient, GivesUpOnAServerThatStallsBeforeTheHeaders) {
  expectGivesUp(Manner::stall);
}
TEST(RESTClient, GivesUpOnAServerThatDripsBytes) {
  expectGivesUp(Manner::drip);
}
TEST(RESTClient, GivesUpOnAServerThatStopsMidBody) {
  expectGivesUp(Manner::stallMidBody);
}
TEST(RESTClient, FailsWhenTheConnectionIsResetMidBody) {
  expectGivesUp(Manner::resetMidBody);
}
TEST(RESTClient, FailsWhenTheConnectionIsClosedWithoutAnAnswer) {
  expectGivesUp(Manner::close);
}

TEST(RESTClient, WaitsLessThanTwiceAsLongForAStalledServerAsForADrippingOne) {
  const auto duration = [](Manner manner) {
    const LoopbackServer server(always({.manner = manner}));
    const auto before = std::chrono::steady_clock::now();
    errorOfPost();
    return std::chrono::steady_clock::now() - before;
  };
  const auto stalled = duration(Manner::stall);
  const auto dripped = duration(Manner::drip);
  EXPECT_LT(dripped, 2 * stalled) << "the limit holds for the whole exchange, however often bytes arrive";
  EXPECT_LT(stalled, 2 * dripped);
}

TEST(RESTClient, FailsOnAnAnswerThatIsNotHTTP) {
  const LoopbackServer server(always({.raw = "garbage\r\n\r\n"}));
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, ReturnsNoDataForAResponseOfAnotherProtocol) {
  const test::TemporaryFolder folder;
  test::writeFile(folder / "reply", "content");
  const auto url = RequestURL::parse("file://" + folder / "reply");
  ASSERT_TRUE(url);
  EXPECT_EQ(RESTClient::postAtURL(*url, "{}"), std::nullopt);
}

TEST(RESTClient, ServesSeveralExchangesOneAfterAnotherAndFromSeveralThreads) {
  const LoopbackServer server([](const WireRequest& request) { return WireReply{.body = request.body}; });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int j = 0; j < 25; ++j) {
        const std::string body = std::to_string(i) + "/" + std::to_string(j);
        EXPECT_EQ(RESTClient::postAtPath("echo", body), body);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(server.requests().size(), 100u);
}

TEST(RESTClient, ReachesASyncApplicationThatWasRestarted) {
  std::optional<LoopbackServer> server(std::in_place, always({.body = "first"}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "first");
  server.reset();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  server.emplace(always({.body = "second"}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "second");
}

TEST(RESTClient, LogsNothing) {
  const test::LogRecorder log;
  errorOfPost();
  const LoopbackServer server(always({.status = 500}));
  errorOfPost();
  EXPECT_THAT(log.messages(), ElementsAre());
}

TEST(RESTClientDeathTest, AnAddressThatIsNoURLStopsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(RESTClient::postAtPath(std::string("bad\nline"), "{}"), "malformed address");
}

TEST(HTTPError, DescriptionNamesTheKindAndTheCode) {
  EXPECT_EQ(HTTPError::Non200Error(500).description(), "Non200Error(500)");
  EXPECT_EQ(HTTPError::ResourceUnavailable().description(), "ResourceUnavailable");
}

TEST(RequestURL, RefusesWhatIsNoAbsoluteURL) {
  EXPECT_FALSE(RequestURL::parse(""));
  EXPECT_FALSE(RequestURL::parse("no scheme"));
  EXPECT_TRUE(RequestURL::parse(App().PLC_REST_HOST));
}

}  // namespace
}  // namespace vornet
