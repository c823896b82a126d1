#include "rest/RESTClient.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <optional>

#include "base/AppConst.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;
using Headers = RESTClient::Headers;
using Manner = WireReply::Manner;

LoopbackServer::Answer always(WireReply reply) {
  return [reply](const WireRequest&) { return reply; };
}

/// Posts as simply as possible.
std::optional<std::string> post(const std::string& body = "{}") {
  return RESTClient::postAtPath("command", body);
}

/// The error that a request throws; none when it throws none.
std::optional<HTTPError> errorOf(const std::function<void()>& request) {
  try {
    request();
  } catch (const HTTPError& error) {
    return error;
  }
  return std::nullopt;
}

std::optional<HTTPError> errorOfPost() {
  return errorOf([] { post(); });
}

/// How long a post takes that gets no answer.
Clock::duration timeWithoutAnswer(const std::string& body = "{}") {
  const auto before = Clock::now();
  EXPECT_EQ(errorOf([&] { post(body); }), HTTPError::ResourceUnavailable());
  return Clock::now() - before;
}

/// The request that the sync application receives of a post.
WireRequest received(std::string_view path, const std::optional<std::string>& body,
                     const std::optional<Headers>& headers = std::nullopt) {
  const LoopbackServer server(always({.body = "ok"}));
  EXPECT_EQ(RESTClient::postAtPath(path, body, headers), "ok");
  EXPECT_EQ(server.requests().size(), 1u);
  return server.requests().at(0);
}

const auto HOST = Pair("Host", "127.0.0.1:8806");
const auto JSON_TYPE = Pair("Content-Type", "application/json");

TEST(RESTClient, PostsToTheBaseAddressOneSlashAndTheCommand) {
  EXPECT_THAT(received("get_icons_for_folder", "{}"), FieldsAre("POST", "/get_icons_for_folder", _, "{}"));
}

TEST(RESTClient, AppendsTheCommandUnescaped) {
  EXPECT_EQ(received("a/../b//c%41?d=/", "{}").target, "/a/../b//c%41?d=/");
}

TEST(RESTClient, ReturnsTheBodyOfA200WholeAndEmptyDataForAnEmptyOne) {
  for (const std::string& body : {std::string("{\"a\0b\":1}", 9) + std::string(1'000'000, ' '), std::string()}) {
    const LoopbackServer server(always({.body = body}));
    EXPECT_EQ(post(), body) << "of " << body.size() << " bytes";
  }
}

TEST(RESTClient, SendsExactlyTheBodyAndOnlyContentTypeBesidesWhatHTTPNeeds) {
  const std::string body(100'000, 'x');  // long enough for a library to ask with "Expect" first
  const auto headers = UnorderedElementsAre(HOST, JSON_TYPE, Pair("Content-Length", "100000"));
  EXPECT_THAT(received("command", body), FieldsAre("POST", "/command", headers, body));
}

TEST(RESTClient, PostsWithoutABodyWhenThereIsNone) {
  const auto headers = UnorderedElementsAre(HOST, JSON_TYPE, Pair("Content-Length", "0"));
  EXPECT_THAT(received("command", std::nullopt), FieldsAre("POST", "/command", headers, ""));
}

TEST(RESTClient, AddsTheCallersHeadersOnceEach) {
  const Headers headers = {{"Accept", "application/json"}, {"X-Empty", ""}};
  EXPECT_THAT(received("command", "{}", headers).headers,
              UnorderedElementsAre(HOST, JSON_TYPE, Pair("Content-Length", "2"), Pair("Accept", "application/json"),
                                   Pair("X-Empty", "")));
}

TEST(RESTClient, SendsContentTypeTwiceWhenTheCallerNamesItAgain) {
  EXPECT_THAT(received("command", "{}", Headers{{"Content-Type", "text/plain"}}).header("Content-Type"),
              ElementsAre("application/json", "text/plain"));
}

TEST(RESTClient, ThrowsNon200ErrorWithTheExactStatusDropsTheBodyAndFollowsNoRedirect) {
  for (const int status : {404, 500, 201, 204, 302, 307, 503}) {
    const LoopbackServer server(always({.status = status,
                                        .body = status == 204 ? "" : "{\"1\":true}",
                                        .headers = {{"Location", "http://127.0.0.1:8806/other"}}}));
    EXPECT_EQ(errorOfPost(), HTTPError::Non200Error(status)) << status;
    EXPECT_EQ(server.requests().size(), 1u) << status;
  }
}

TEST(RESTClient, IgnoresProxiesInTheEnvironment) {
  const LoopbackServer proxy(always({.body = "from the proxy"}), 0);
  const ScopedVariable lower("http_proxy", proxy.url(""));
  const ScopedVariable upper("ALL_PROXY", proxy.url(""));
  const LoopbackServer server(always({.body = "from the server"}));
  EXPECT_EQ(post(), "from the server");
  EXPECT_TRUE(proxy.requests().empty());
}

/// A server that never finishes its answer. Without the time-out of 3 seconds a post would take for ever, so a bound
/// far above it is enough.
class UnfinishedAnswer : public testing::TestWithParam<std::pair<std::string, Manner>> {};

TEST_P(UnfinishedAnswer, IsGivenUpAndNotAskedForAgain) {
  LoopbackServer server(always({.body = "{}"}));
  ASSERT_EQ(post(), "{}");  // on a connection that could be kept
  server.setAnswer(always({.body = std::string(1000, 'x'), .manner = GetParam().second}));
  EXPECT_LT(timeWithoutAnswer(), std::chrono::seconds(30));
  EXPECT_EQ(server.requests().size(), 2u) << "a request is never made twice";
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
    return timeWithoutAnswer();
  };
  const auto stalled = duration(Manner::stall);
  const auto dripped = duration(Manner::drip);
  EXPECT_LT(dripped, 2 * stalled) << "the limit holds for the whole exchange, however often bytes arrive";
  EXPECT_LT(stalled, 2 * dripped);
}

// --- Each request has its own connection ----------------------------------------------------------------------------

TEST(RESTClient, EachRequestHasItsOwnConnection) {
  const LoopbackServer server(always({.body = "{}"}));
  for (int i = 0; i < 3; ++i) post();
  EXPECT_EQ(server.connections(), 3u);
}

TEST(RESTClient, AServerThatClosesAfterALongSilenceDoesNotProlongTheExchange) {
  LoopbackServer server(always({.body = "{}"}));
  ASSERT_EQ(post(), "{}");
  server.setAnswer([](const WireRequest& request) {
    if (request.body == "silent") return WireReply{.manner = Manner::stall};
    return WireReply{.manner = Manner::close, .silence = std::chrono::milliseconds(2790)};
  });
  auto silent = std::async(std::launch::async, timeWithoutAnswer, "silent");  // the limit itself, under the same load
  const auto closed = timeWithoutAnswer("closing");
  EXPECT_LT(closed, silent.get() + std::chrono::milliseconds(500));
}

TEST(RESTClient, AServerThatServesOneConnectionAtATimeAnswersEveryThread) {
  const LoopbackServer server(always({.body = "ok"}), LoopbackServer::SYNC_APPLICATION_PORT,
                              LoopbackServer::Serving::oneByOne);
  ASSERT_EQ(post(), "ok");  // by a thread that lives on
  EXPECT_EQ(onAnotherThread([] { return post(); }), "ok");
  EXPECT_EQ(post(), "ok");
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
      EXPECT_EQ(post(), "");
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
  EXPECT_EQ(post(), "{}");
}

TEST(RESTClient, TrailersOfAChunkedBodyAreNoHeaders) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X-Sum\r\n\r\n2\r\n{}\r\n0\r\n";
  for (const std::string trailers : {"\r\n", "X-Sum: 1\r\n\r\n", "HTTP/1.1 100: 1\r\n\r\n"}) {
    const LoopbackServer server(always({.raw = head + trailers}));
    EXPECT_EQ(post(), "{}") << trailers;
  }
}

TEST(RESTClient, ABodyThatEndsWithTheConnectionIsWhole) {
  for (const std::string head : {"HTTP/1.0 200 OK\r\n\r\n", "HTTP/1.1 200\nConnection: close\n\n"}) {
    const LoopbackServer server(always({.raw = head + "{}"}));
    EXPECT_EQ(post(), "{}") << head;
  }
}

TEST(RESTClient, AReplyAboveTheGivenLimitOrElseOneMebibyteIsRejected) {
  const auto postWithLimit = [] { return RESTClient::postAtPath("command", "{}", std::nullopt, 100'000); };
  const std::pair<std::size_t, std::function<std::optional<std::string>()>> posts[] = {
      {100'000, postWithLimit}, {1 << 20, [] { return post(); }}};
  for (const auto& [limit, request] : posts) {
    const std::string whole(limit, ' ');
    const std::string unannounced = "HTTP/1.1 200 OK\r\n\r\n";
    for (const auto& reply : {WireReply{.body = whole}, WireReply{.raw = unannounced + whole}}) {
      const LoopbackServer server(always(reply));
      EXPECT_TRUE(request() == whole) << limit << " bytes";
    }
    for (const auto& reply : {WireReply{.body = whole + " "}, WireReply{.raw = unannounced + whole + " "},
                              WireReply{.status = 404, .body = whole + " "}}) {
      const LoopbackServer server(always(reply));
      EXPECT_EQ(errorOf(request), HTTPError::ResourceUnavailable()) << limit << " bytes and one";
    }
    const LoopbackServer server(always({.status = 404, .body = whole}));
    EXPECT_EQ(errorOf(request), HTTPError::Non200Error(404)) << limit << " bytes";
  }
}

TEST(RESTClient, AnAnnouncedLengthAboveTheLimitIsRefusedAtOnce) {
  const LoopbackServer server([](const WireRequest& request) {
    const std::string length = request.body == "above" ? "1048577" : "1048576";
    return WireReply{.manner = Manner::stall, .raw = "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n"};
  });
  auto within = std::async(std::launch::async, [] { post("within"); });
  EXPECT_EQ(errorOf([] { post("above"); }), HTTPError::ResourceUnavailable());
  EXPECT_FALSE(isDone(within)) << "it waits for its 3 seconds";
  EXPECT_EQ(errorOf([&] { within.get(); }), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, HeadersWithoutEndAreNoReply) {
  const auto replyOf = [](int lines) {
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < lines; ++i) head += "X-Name-" + std::to_string(i) + ": " + std::string(2040, 'x') + "\r\n";
    return WireReply{.raw = head + "Content-Length: 2\r\n\r\n{}"};
  };
  LoopbackServer server(always(replyOf(120)));
  EXPECT_EQ(post(), "{}");
  server.setAnswer(always(replyOf(130)));
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, FailsOnAnAnswerThatIsNotHTTP) {
  const LoopbackServer server(always({.raw = "garbage\r\n\r\n"}));
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
}

TEST(RESTClient, ReturnsNoDataForAResponseOfAnotherProtocol) {
  const TemporaryFolder folder;
  writeFile(folder / "reply", "content");
  const auto url = RequestURL::parse("file://" + folder / "reply");
  ASSERT_TRUE(url);
  EXPECT_EQ(RESTClient::postAtURL(*url, "{}"), std::nullopt);
}

TEST(RESTClient, ServesSeveralExchangesOneAfterAnotherAndFromSeveralThreads) {
  const LoopbackServer server([](const WireRequest& request) { return WireReply{.body = request.body}; });
  inParallel(4, [](std::size_t thread) {
    for (int i = 0; i < 25; ++i) {
      const std::string body = std::to_string(thread) + "/" + std::to_string(i);
      EXPECT_EQ(post(body), body);
    }
  });
  EXPECT_EQ(server.requests().size(), 100u);
}

TEST(RESTClient, ThrowsResourceUnavailableWhileTheSyncApplicationIsAbsentAndReachesItOnceRestarted) {
  std::optional<LoopbackServer> server(std::in_place, always({.body = "first"}));
  EXPECT_EQ(post(), "first");
  server.reset();
  EXPECT_EQ(errorOfPost(), HTTPError::ResourceUnavailable());
  server.emplace(always({.body = "second"}));
  EXPECT_EQ(post(), "second");
}

TEST(RESTClient, LogsNothing) {
  const LogRecorder log;
  errorOfPost();
  const LoopbackServer server(always({.status = 500}));
  errorOfPost();
  EXPECT_THAT(log.messages(), ElementsAre());
}

TEST(RESTClientDeathTest, AnAddressThatIsNoURLStopsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(RESTClient::postAtPath(std::string("bad\nline"), "{}"), "malformed address");
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
  const auto wholeRequest = timeWithoutAnswer();
  for (int i = 0; i < 8; ++i) posts.push_back(std::async(std::launch::async, &errorOfPost));
  ASSERT_TRUE(server.waitForRequests(9));

  const auto hurried = Clock::now();
  RESTClient::hurry();
  for (auto& hurriedPost : posts) EXPECT_EQ(hurriedPost.get(), HTTPError::ResourceUnavailable());
  EXPECT_LT((Clock::now() - hurried) * 3, wholeRequest * 2);
  EXPECT_LT(timeWithoutAnswer() * 3, wholeRequest * 2) << "one that began later";

  server.setAnswer(always({.body = "{}"}));
  int unanswered = 0;
  while (unanswered < 100 && errorOfPost()) ++unanswered;  // on a busy machine an answer may come late
  EXPECT_LT(unanswered, 100) << "there is time for an answer";
}

}  // namespace
}  // namespace vornet::test
