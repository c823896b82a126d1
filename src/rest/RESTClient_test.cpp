#include "rest/RESTClient.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <thread>

#include "base/AppConst.hpp"
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

/// A server that never finishes its answer. Without the time-out of 3 seconds a post would take for ever, so a bound
/// far above it is enough.
class UnfinishedAnswer : public testing::TestWithParam<std::pair<std::string, Manner>> {};

TEST_P(UnfinishedAnswer, IsGivenUpAndNotAskedForAgain) {
  const LoopbackServer server(always({.body = std::string(1000, 'x'), .manner = GetParam().second}));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30));
  EXPECT_EQ(server.requests().size(), 1u) << "a request is not made again after its time-out";
}

INSTANTIATE_TEST_SUITE_P(
    RESTClient, UnfinishedAnswer,
    testing::Values(std::pair("StallsBeforeTheHeaders", Manner::stall), std::pair("DripsBytes", Manner::drip),
                    std::pair("DripsABody", Manner::dripBody), std::pair("StopsMidBody", Manner::stallMidBody),
                    std::pair("IsResetMidBody", Manner::resetMidBody), std::pair("IsResetBeforeIt", Manner::reset),
                    std::pair("IsClosedBeforeIt", Manner::close)),
    [](const auto& tested) { return tested.param.first; });

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

// --- Each request has its own connection ----------------------------------------------------------------------------

TEST(RESTClient, EachRequestHasItsOwnConnection) {
  const LoopbackServer server(always({.body = "{}"}));
  for (int i = 0; i < 3; ++i) RESTClient::postAtPath("command", "{}");
  EXPECT_EQ(server.connections(), 3u);
}

TEST(RESTClient, NeverSendsARequestTwice) {
  for (const auto manner : {Manner::close, Manner::reset, Manner::resetMidBody}) {
    LoopbackServer server(always({.body = "{}"}));
    ASSERT_EQ(RESTClient::postAtPath("command", "{}"), "{}");  // a connection that could be kept
    server.setAnswer(always({.body = "{}", .manner = manner}));
    EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
    EXPECT_EQ(server.requests().size(), 2u) << static_cast<int>(manner);
  }
}

TEST(RESTClient, AServerThatClosesAfterALongSilenceDoesNotProlongTheExchange) {
  LoopbackServer server(always({.body = "{}"}));
  ASSERT_EQ(RESTClient::postAtPath("command", "{}"), "{}");
  server.setAnswer([](const WireRequest& request) {
    if (request.body == "silent") return WireReply{.manner = Manner::stall};
    return WireReply{.manner = Manner::close, .silence = std::chrono::milliseconds(2790)};
  });
  const auto timed = [](const std::string& body) {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(errorOf([&] { RESTClient::postAtPath("command", body); }), HTTPError::ResourceUnavailable());
    return std::chrono::steady_clock::now() - before;
  };
  auto silent = std::async(std::launch::async, timed, "silent");  // the limit itself, measured under the same load
  const auto closed = timed("closing");
  EXPECT_LT(closed, silent.get() + std::chrono::milliseconds(500));
}

TEST(RESTClient, AServerThatServesOneConnectionAtATimeAnswersEveryThread) {
  const LoopbackServer server([](const WireRequest& request) { return WireReply{.body = request.body}; },
                              LoopbackServer::SYNC_APPLICATION_PORT, LoopbackServer::Serving::oneByOne);
  ASSERT_EQ(RESTClient::postAtPath("echo", "first"), "first");  // by a thread that lives on
  EXPECT_EQ(std::async(std::launch::async, [] { return RESTClient::postAtPath("echo", "second"); }).get(), "second");
  EXPECT_EQ(RESTClient::postAtPath("echo", "third"), "third");
}

// --- What counts as a reply -----------------------------------------------------------------------------------------

TEST(RESTClient, AReplyCutWithinItsHeadersIsRejected) {
  for (const std::string status : {"200 OK", "404 Not Found", "500 Internal Server Error", "204 No Content"}) {
    const std::string head = "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\nContent-Type: application/json\r\n";
    for (const std::size_t length : {head.find('\r'), head.find("Content-L"), head.find("Content-T"), head.size()}) {
      const LoopbackServer server(always({.raw = head.substr(0, length)}));
      EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable()) << head.substr(0, length);
    }
    const LoopbackServer server(always({.raw = head + "\r\n"}));
    if (status == "200 OK")
      EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "");
    else
      EXPECT_EQ(errorOfPost(), HTTPError::Non200Error(std::stoi(status))) << status;
  }
}

TEST(RESTClient, AnInterimReplyAloneIsRejected) {
  const std::string interim = "HTTP/1.1 100 Continue\r\nX-Name: value\r\n\r\n";
  for (const std::string rest : {"", "HTTP/1.1 103 Early Hints\r\n\r\n", "HTTP/1.1 200 OK\r\n",
                                 "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n"}) {
    const LoopbackServer server(always({.raw = interim + rest}));
    EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable()) << rest;
  }
  const LoopbackServer server(always({.raw = interim + interim + "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "{}");
}

TEST(RESTClient, TrailersOfAChunkedBodyAreNoHeaders) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X-Sum\r\n\r\n2\r\n{}\r\n0\r\n";
  for (const std::string trailers : {"\r\n", "X-Sum: 1\r\n\r\n", "HTTP/1.1 100: 1\r\n\r\n"}) {
    const LoopbackServer server(always({.raw = head + trailers}));
    EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "{}") << trailers;
  }
}

TEST(RESTClient, ABodyThatEndsWithTheConnectionIsWhole) {
  for (const std::string head : {"HTTP/1.0 200 OK\r\n\r\n", "HTTP/1.1 200\nConnection: close\n\n"}) {
    const LoopbackServer server(always({.raw = head + "{}"}));
    EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "{}") << head;
  }
}

TEST(RESTClient, AReplyAboveTheLimitIsRejected) {
  constexpr std::size_t LIMIT = 100'000;
  const auto post = [] { return RESTClient::postAtPath("command", "{}", std::nullopt, LIMIT); };
  const std::string whole(LIMIT, ' ');
  const std::string unannounced = "HTTP/1.1 200 OK\r\n\r\n";
  LoopbackServer server(always({.body = whole}));
  EXPECT_EQ(post(), whole);
  server.setAnswer(always({.raw = unannounced + whole}));
  EXPECT_EQ(post(), whole);
  for (const WireReply& reply : {WireReply{.body = whole + " "}, WireReply{.raw = unannounced + whole + " "},
                                 WireReply{.status = 404, .body = whole + " "}}) {
    server.setAnswer(always(reply));
    EXPECT_EQ(errorOf(post), HTTPError::ResourceUnavailable());
  }
  server.setAnswer(always({.status = 404, .body = whole}));
  EXPECT_EQ(errorOf(post), HTTPError::Non200Error(404));
}

TEST(RESTClient, ARequestTakesOneMebibyteByDefault) {
  LoopbackServer server(always({.body = std::string(1 << 20, ' ')}));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}")->size(), std::size_t{1} << 20);
  server.setAnswer(always({.body = std::string((1 << 20) + 1, ' ')}));
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, AnAnnouncedLengthAboveTheLimitIsRefusedAtOnce) {
  const LoopbackServer server([](const WireRequest& request) {
    const std::string length = request.body == "above" ? "1048577" : "1048576";
    return WireReply{.manner = Manner::stall, .raw = "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n"};
  });
  auto within = std::async(std::launch::async, [] { RESTClient::postAtPath("command", "within"); });
  EXPECT_EQ(errorOf([] { RESTClient::postAtPath("command", "above"); }), HTTPError::ResourceUnavailable());
  EXPECT_EQ(within.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "it waits for its 3 seconds";
  EXPECT_EQ(errorOf([&] { within.get(); }), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, HeadersWithoutEndAreNoReply) {
  const auto replyOf = [](int lines) {
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < lines; ++i) head += "X-Name-" + std::to_string(i) + ": " + std::string(2040, 'x') + "\r\n";
    return WireReply{.raw = head + "Content-Length: 2\r\n\r\n{}"};
  };
  LoopbackServer server(always(replyOf(120)));
  EXPECT_EQ(RESTClient::postAtPath("command", "{}"), "{}");
  server.setAnswer(always(replyOf(130)));
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
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

TEST(RequestURL, KnowsThePortOfAServerOnTheLoopbackInterface) {
  EXPECT_EQ(RequestURL::parse(App().PLC_REST_HOST + "/x")->loopbackPort(), 8806);
  EXPECT_EQ(RequestURL::parse("http://127.0.0.1")->loopbackPort(), 80);
  EXPECT_EQ(RequestURL::parse("http://127.0.0.2:8806")->loopbackPort(), std::nullopt);
  EXPECT_EQ(RequestURL::parse("file:///127.0.0.1")->loopbackPort(), std::nullopt);
  EXPECT_EQ(RequestURL::parse("file://127.0.0.1/x")->loopbackPort(), std::nullopt);
}

TEST(RESTClient, HurriedRequestsEndLongBeforeTheirTimeOutUnlessTheyAreAnswered) {
  std::vector<std::future<std::optional<HTTPError>>> posts;
  LoopbackServer server(always({.manner = Manner::stall}));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  const auto wholeRequest = std::chrono::steady_clock::now() - begun;
  for (int i = 0; i < 8; ++i) posts.push_back(std::async(std::launch::async, &errorOfPost));
  ASSERT_TRUE(server.waitForRequests(9));

  const auto hurried = std::chrono::steady_clock::now();
  RESTClient::hurry();
  for (auto& post : posts) EXPECT_EQ(post.get(), HTTPError::ResourceUnavailable());
  EXPECT_LT((std::chrono::steady_clock::now() - hurried) * 3, wholeRequest * 2);

  const auto late = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  EXPECT_LT((std::chrono::steady_clock::now() - late) * 3, wholeRequest * 2) << "one that began later";
  server.setAnswer(always({.body = "{}"}));
  int unanswered = 0;
  while (unanswered < 100 && errorOfPost()) ++unanswered;  // on a busy machine an answer may come late
  EXPECT_LT(unanswered, 100) << "there is time for an answer";
}

}  // namespace
}  // namespace vornet
