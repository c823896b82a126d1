#include "CallGate.hpp"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "dbus/Interface.hpp"
#include "support/BusClient.hpp"

namespace vornet::service {
namespace {

using test::BusClient;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;
using Reason = CallGate::Reason;

GVariant* urls(std::size_t count, std::size_t length = 10) {
  return BusClient::urlArguments(std::vector<std::string>(count, "file:///" + std::string(length, 'a')));
}

/// An open gate, with its input and output as messages.
class CallGateTest : public testing::Test {
 protected:
  static constexpr bool UNAWAITED = true;

  CallGateTest() { gate.open(); }

  std::string blob(const GObjectPtr<GDBusMessage>& message, const std::string& sender, GVariant* body = nullptr) {
    if (body) g_dbus_message_set_body(message.get(), body);
    g_dbus_message_set_sender(message.get(), sender.c_str());
    g_dbus_message_set_serial(message.get(), ++serial);
    return test::bytesOf(message);
  }
  std::string call(const std::string& client, const std::string& member, GVariant* body = nullptr,
                   bool unawaited = false) {
    const GObjectPtr<GDBusMessage> message(
        g_dbus_message_new_method_call("com.example.Name", "/a", "com.example.I", member.c_str()));
    if (unawaited) g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    return blob(message, client, body);
  }
  std::string signal(const std::string& sender, const std::string& member, GVariant* body = nullptr) {
    const GObjectPtr<GDBusMessage> message(g_dbus_message_new_signal("/a", "com.example.I", member.c_str()));
    return blob(message, sender, body);
  }
  /// Has the gate take the same call so many times.
  void take(std::size_t times, const std::string& client, const std::string& member, std::size_t urlsOfEach = 0,
            std::size_t lengthOfEach = 10) {
    for (std::size_t i = 0; i < times; ++i)
      ASSERT_TRUE(gate.take(call(client, member, urlsOfEach ? urls(urlsOfEach, lengthOfEach) : nullptr)));
  }
  /// The messages that pass now.
  std::vector<std::string> passed() {
    std::vector<std::string> result;
    std::string message;
    char buffer[1000];
    while (const std::size_t count = gate.give(buffer, sizeof buffer)) {
      message.append(buffer, count);
      if (message.size() < MESSAGE_START || message.size() < messageLength(message)->total) continue;
      result.push_back(message);
      message.clear();
    }
    EXPECT_EQ(message, "");
    EXPECT_FALSE(gate.hasSomething());
    return result;
  }
  static std::vector<std::string> sendersOf(const std::vector<std::string>& messages) {
    std::vector<std::string> result;
    for (const auto& message : messages) result.emplace_back(readMessageHeader(message)->sender);
    return result;
  }
  std::vector<Reason> refusals() {
    std::vector<Reason> result;
    while (const auto refusal = gate.nextRefusal()) result.push_back(refusal->reason);
    return result;
  }
  /// Everything that waits goes through, a call answered as soon as it has passed. The messages in order.
  std::vector<std::string> serveAll() {
    std::vector<std::string> result;
    for (auto messages = passed(); !messages.empty(); messages = passed()) {
      for (auto& message : messages) {
        const auto header = readMessageHeader(message);
        gate.answered(std::string(header->sender), header->serial);
        gate.doneWith(std::string(header->sender), header->serial);
        result.push_back(std::move(message));
      }
    }
    return result;
  }

  CallGate gate;
  std::uint32_t serial = 0;
};

TEST_F(CallGateTest, PassesMessagesOnUnchangedHoweverTheyWereCut) {
  const std::vector<std::string> sent{call(":1.1", "RequestBadges", urls(3)), call(":1.1", "Ping"),
                                      call(":1.1", "BeginObserving", BusClient::textArgument("file:///a"))};
  std::string stream;
  for (const auto& message : sent) stream += message;
  for (const std::size_t piece : {1u, 7u, 16u, 100u, 100'000u}) {
    std::vector<std::string> got;
    for (std::size_t from = 0; from < stream.size(); from += piece) {
      ASSERT_TRUE(gate.take(std::string_view(stream).substr(from, piece)));
      for (auto& message : serveAll()) got.push_back(std::move(message));
    }
    EXPECT_THAT(got, UnorderedElementsAreArray(sent)) << piece;
  }
  EXPECT_THAT(refusals(), ElementsAre());
}

TEST_F(CallGateTest, AMalformedMessageEndsTheStream) {
  take(1, ":1.1", "Ping");
  EXPECT_FALSE(gate.take("GET / HTTP/1.0\r\n\r\n"));
}

TEST_F(CallGateTest, UntilItIsOpenOnlyTheBussOwnMessagesPass) {
  CallGate closed;
  ASSERT_TRUE(closed.take(call(":1.1", "Ping")));
  EXPECT_FALSE(closed.hasSomething());
  ASSERT_TRUE(closed.take(call("org.freedesktop.DBus", "Ping")));
  char buffer[1000];
  EXPECT_GT(closed.give(buffer, sizeof buffer), 0u);
  EXPECT_EQ(closed.give(buffer, sizeof buffer), 0u);
  closed.open();
  EXPECT_TRUE(closed.hasSomething());
}

TEST_F(CallGateTest, RefusesCallsThatAreTooLargeWithoutStoringThem) {
  take(1, ":1.1", "RequestBadges", 10'001);
  ASSERT_TRUE(gate.take(call(":1.1", "GetMenu", urls(2, dbus::MAX_BYTES_OF_LIST))));
  ASSERT_TRUE(gate.take(call(":1.1", "RequestBadges", urls(2, dbus::MAX_BYTES_OF_LIST), UNAWAITED)));
  ASSERT_TRUE(
      gate.take(call(":1.1", "BeginObserving", BusClient::textArgument(std::string(dbus::MAX_BYTES_OF_OTHERS, 'a')))));
  ASSERT_TRUE(gate.take(call(":1.1", "RequestBadges", BusClient::textArgument(std::string(100'000, 'a')))));
  EXPECT_THAT(passed(), ElementsAre());
  EXPECT_THAT(refusals(), ElementsAre(Reason::tooManyURLs, Reason::tooManyURLs, Reason::tooLarge, Reason::tooLarge));
  take(1, ":1.1", "RequestBadges", 10'000);
  EXPECT_EQ(passed().size(), 1u);
}

TEST_F(CallGateTest, AMessageWithAnOverlongHeaderIsThrownAway) {
  const GObjectPtr<GDBusMessage> message(
      g_dbus_message_new_method_call("com.example.Name", ("/" + std::string(20'000, 'a')).c_str(), nullptr, "Ping"));
  ASSERT_TRUE(gate.take(blob(message, ":1.1") + call(":1.2", "Ping")));
  EXPECT_THAT(sendersOf(passed()), ElementsAre(":1.2"));
}

TEST_F(CallGateTest, LimitsTheCallsOfEachClientSeparately) {
  const std::vector<std::pair<const char*, std::size_t>> limits{{"BeginObserving", dbus::MAX_OBSERVING_CALLS},
                                                                {"RequestBadges", dbus::MAX_BADGE_CALLS},
                                                                {"GetMenu", dbus::MAX_MENU_CALLS},
                                                                {"Introspect", dbus::MAX_OTHER_CALLS}};
  for (const auto& [member, limit] : limits) {
    take(limit + 10, ":1.1", member);
    EXPECT_EQ(refusals(), std::vector<Reason>(10, Reason::busy)) << member;
    take(1, ":1.2", member);
    EXPECT_THAT(refusals(), ElementsAre()) << member << " of another client";
  }
  EXPECT_EQ(serveAll().size(), dbus::MAX_OBSERVING_CALLS + dbus::MAX_BADGE_CALLS + dbus::MAX_MENU_CALLS +
                                   dbus::MAX_OTHER_CALLS + limits.size());
  for (const auto& limit : limits) take(1, ":1.1", limit.first);
  EXPECT_THAT(refusals(), ElementsAre()) << "what was answered has made room";
  EXPECT_EQ(serveAll().size(), limits.size());
}

TEST_F(CallGateTest, CallsThatAwaitNoAnswerCountUntilTheyAreDoneWith) {
  for (std::size_t i = 0; i < 2 * dbus::MAX_BADGE_CALLS; ++i)
    ASSERT_TRUE(gate.take(call(":1.1", "RequestBadges", urls(1), UNAWAITED)));
  EXPECT_THAT(refusals(), ElementsAre()) << "nobody waits for a refusal";
  EXPECT_EQ(serveAll().size(), dbus::MAX_BADGE_CALLS);
}

TEST_F(CallGateTest, AnAnswerMakesRoomForItsOwnCallOnly) {
  // The client gives a call without an answer the serial of another, which is soon answered.
  ASSERT_TRUE(gate.take(call(":1.1", "GetMenu", urls(600), UNAWAITED)));
  serial = 0;
  take(1, ":1.1", "GetMenu", 1);
  ASSERT_EQ(passed().size(), 2u);
  gate.answered(":1.1", serial);
  take(1, ":1.2", "GetMenu", 600);
  EXPECT_THAT(passed(), ElementsAre()) << "the long call is still in flight";
}

TEST_F(CallGateTest, UnawaitedCallsOfOneSerialAreDistinguished) {
  ASSERT_TRUE(gate.take(call(":1.1", "GetMenu", urls(600), UNAWAITED)));
  serial = 0;
  ASSERT_TRUE(gate.take(call(":1.1", "GetMenu", urls(1), UNAWAITED)));
  const auto given = passed();
  ASSERT_EQ(given.size(), 2u);
  gate.doneWith(":1.1", readMessageHeader(given[1])->serial);
  take(1, ":1.2", "GetMenu", 600);
  EXPECT_THAT(passed(), ElementsAre()) << "the long call is still in flight";
  gate.doneWith(":1.1", readMessageHeader(given[0])->serial);
  EXPECT_THAT(sendersOf(passed()), ElementsAre(":1.2"));
}

TEST_F(CallGateTest, LimitsTheBytesThatWaitAndRefusesTheHeaviest) {
  take(100, ":1.1", "RequestBadges", 1000, 1000);
  const auto refused = refusals().size();
  EXPECT_GT(refused, 80u);
  EXPECT_LT(refused, 100u);
  for (int client = 2; client < 40; ++client) take(10, ":1." + std::to_string(client), "RequestBadges", 1000, 1000);
  EXPECT_GT(refusals().size(), 300u);
  take(1, ":1.99", "RequestBadges", 1);
  take(1, ":1.99", "RequestBadges", 50, 1000);
  EXPECT_THAT(refusals(), ElementsAre()) << "a client that asks for little is served while others fill the store";

  std::size_t bytes = 0;
  for (const auto& message : serveAll()) bytes += message.size();
  EXPECT_LE(bytes, CallGate::MAX_BYTES + CallGate::MAX_RESERVED_BYTES);
  take(1, ":1.1", "RequestBadges", 1000, 1000);
  EXPECT_THAT(refusals(), ElementsAre());
}

TEST_F(CallGateTest, TheReserveForSmallCallsIsBoundedToo) {
  for (int client = 0; client < 2000; ++client) take(2, ":1." + std::to_string(client), "Ping", 25, 1000);
  const std::size_t taken = 4000 - refusals().size();
  EXPECT_LE(taken * 25'000, CallGate::MAX_BYTES + CallGate::MAX_RESERVED_BYTES);
  EXPECT_GT(taken * 25'000, CallGate::MAX_BYTES);
}

TEST_F(CallGateTest, OneClientNeverTakesEveryPlace) {
  take(60, ":1.1", "GetMenu", 1);
  EXPECT_EQ(passed().size(), 4u);
  take(60, ":1.2", "GetMenu", 1);
  EXPECT_EQ(passed().size(), 2u);
  take(1, ":1.3", "GetMenu", 1);
  take(1, ":1.3", "RequestBadges", 1);
  EXPECT_THAT(sendersOf(passed()), ElementsAre(":1.3", ":1.3")) << "menus take no badges' places";
}

TEST_F(CallGateTest, FewLongCallsAreInFlightAtATimeAndShortOnesPassThem) {
  for (int client = 0; client < 20; ++client) take(1, ":1." + std::to_string(client), "RequestBadges", 10'000, 50);
  EXPECT_EQ(passed().size(), 2u);
  take(1, ":2.1", "RequestBadges", 500);
  EXPECT_THAT(sendersOf(passed()), ElementsAre(":2.1"));
  EXPECT_EQ(passed().size(), 0u);
}

TEST_F(CallGateTest, LongCallsAreBoundedByWhatTheyTakeInMemory) {
  take(1, ":1.1", "RequestBadges", 10'000, 380);
  take(1, ":1.2", "RequestBadges", 10'000, 380);
  EXPECT_EQ(passed().size(), 1u) << "either takes as much as both may";
}

TEST_F(CallGateTest, ClientsTakeTurnsByWhatTheyAskFor) {
  take(3, ":1.1", "RequestBadges", 10'000);
  take(1, ":1.2", "RequestBadges", 501);
  EXPECT_THAT(sendersOf(serveAll()), ElementsAre(":1.2", ":1.1", ":1.1", ":1.1"));
}

TEST_F(CallGateTest, ObservingCallsOfAClientKeepTheirOrder) {
  const char* const methods[] = {"BeginObserving", "RequestSnapshot", "EndObserving"};
  std::vector<std::string> sent;
  for (int i = 0; i < 501; ++i) {
    sent.push_back(call(":1.1", methods[i % 3], BusClient::textArgument("file:///" + std::to_string(i))));
    ASSERT_TRUE(gate.take(sent.back()));
  }
  EXPECT_EQ(serveAll(), sent);
}

TEST_F(CallGateTest, TheBussOwnMessagesAreNeverHeldBack) {
  take(100, ":1.1", "GetMenu", 1);
  passed();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(gate.take(signal("org.freedesktop.DBus", "NameOwnerChanged")));
  EXPECT_EQ(passed().size(), 1000u);
}

TEST_F(CallGateTest, OtherMessagesOfClientsAreBoundedAndTakeNoPlace) {
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(gate.take(signal(":1.1", "RequestBadges")));
  EXPECT_EQ(passed().size(), dbus::MAX_OTHER_CALLS);
  take(1, ":1.1", "Ping");
  EXPECT_EQ(passed().size(), 1u);
  ASSERT_TRUE(gate.take(signal(":1.1", "S", BusClient::textArgument(std::string(dbus::MAX_BYTES_OF_OTHERS, 'a')))));
  EXPECT_EQ(passed().size(), 0u);
  EXPECT_THAT(refusals(), ElementsAre());
}

}  // namespace
}  // namespace vornet::service
