#include "MessageHeader.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/BusClient.hpp"

namespace vornet::service {
namespace {

using test::BusClient;
using test::textList;
using testing::FieldsAre;
using testing::Optional;

std::string messageOf(GVariant* body, GDBusMessageByteOrder order = G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN) {
  const GObjectPtr<GDBusMessage> message(
      g_dbus_message_new_method_call("com.example.Name", "/a/path", "com.example.I", "Member"));
  g_dbus_message_set_sender(message.get(), ":1.7");
  g_dbus_message_set_serial(message.get(), 0x01020304);
  g_dbus_message_set_byte_order(message.get(), order);
  if (body) g_dbus_message_set_body(message.get(), body);
  return test::bytesOf(message);
}

std::optional<std::size_t> countIn(const std::string& message, std::size_t most = 100) {
  const auto header = readMessageHeader(message);
  const auto length = messageLength(message);
  if (!header || !length) return std::nullopt;
  return countListedTexts(std::string_view(message).substr(length->header), *header, most);
}

TEST(MessageHeader, GivesLengthSenderAndMemberInBothByteOrders) {
  for (const auto order : {G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN, G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN}) {
    const auto bytes = messageOf(BusClient::urlArguments({"one", "two"}), order);
    const auto length = messageLength(bytes);
    ASSERT_TRUE(length);
    EXPECT_EQ(length->total, bytes.size());
    EXPECT_LT(length->header, bytes.size());
    const bool bigEndian = order == G_DBUS_MESSAGE_BYTE_ORDER_BIG_ENDIAN;
    EXPECT_THAT(readMessageHeader(bytes), Optional(FieldsAre(MessageType::call, bigEndian, /*replyExpected=*/true,
                                                             0x01020304u, "Member", ":1.7", "as")));
    EXPECT_EQ(countIn(bytes), 2u);
  }
}

TEST(MessageHeader, KnowsWhetherAnAnswerIsAwaited) {
  auto bytes = messageOf(nullptr);
  bytes[2] = 1;
  EXPECT_FALSE(readMessageHeader(bytes).value().replyExpected);
}

TEST(MessageHeader, RefusesMalformedMessages) {
  const auto good = messageOf(nullptr);
  EXPECT_FALSE(messageLength(good.substr(0, MESSAGE_START - 1)));
  EXPECT_FALSE(readMessageHeader(good.substr(0, messageLength(good)->header - 1)));
  const auto changed = [&good](std::size_t place, char value) { return std::string(good).replace(place, 1, 1, value); };
  EXPECT_FALSE(messageLength(changed(0, 'x'))) << "no byte order";
  EXPECT_FALSE(messageLength(changed(3, 2))) << "another version of the protocol";
  EXPECT_FALSE(messageLength(changed(7, '\x7f'))) << "a body of two gigabytes";
  EXPECT_FALSE(messageLength(changed(15, '\x7f'))) << "such fields";
  EXPECT_FALSE(readMessageHeader(changed(1, 9))) << "an unknown type";
}

TEST(MessageHeader, RefusesATextThatHoldsANul) {
  auto member = messageOf(nullptr);
  member[member.find("Member") + 3] = '\0';  // GLib would read "Mem"
  EXPECT_FALSE(readMessageHeader(member));
  auto listed = messageOf(BusClient::urlArguments({"one", "two"}));
  listed[listed.find("two") + 1] = '\0';
  EXPECT_TRUE(readMessageHeader(listed));
  EXPECT_FALSE(countIn(listed));
}

TEST(MessageHeader, RefusesAKnownFieldOfAnotherType) {
  const std::vector<std::pair<std::string, char>> numbers{
      {"/a/path", 3}, {":1.7", 1}, {"com.example.I", 8}, {"com.example.Name", 5}};
  for (const auto& [value, number] : numbers) {
    auto bytes = messageOf(nullptr);
    const std::size_t field = bytes.find(value) - 8;  // the number, the type as a signature, and the value's length
    ASSERT_TRUE(readMessageHeader(bytes)) << value;
    bytes[field] = number;
    EXPECT_FALSE(readMessageHeader(bytes)) << value;
    bytes[field] = 99;  // an unknown field may have any type
    EXPECT_TRUE(readMessageHeader(bytes)) << value;
  }
}

TEST(MessageHeader, SurvivesAnyWrongByte) {
  const auto good = messageOf(BusClient::urlArguments({"one", "two", "three"}));
  for (std::size_t place = 0; place < good.size(); ++place) {
    for (const char value : {'\x00', '\x01', '\x7f', '\x80', '\xff', 's', 'a'}) {
      auto bad = good;
      bad[place] = value;
      const auto length = messageLength(bad);
      if (!length || length->header > bad.size()) continue;
      if (const auto header = readMessageHeader(bad))
        EXPECT_LE(countListedTexts(std::string_view(bad).substr(length->header), *header, 100).value_or(0), 16u);
    }
  }
}

TEST(MessageHeader, CountsOnlyListsAndNoFurtherThanTheLimit) {
  EXPECT_EQ(countIn(messageOf(BusClient::urlArguments({}))), 0u);
  EXPECT_EQ(countIn(messageOf(g_variant_new("(s@as)", "share:", textList({"a", "bcd"})))), 2u);
  EXPECT_EQ(countIn(messageOf(BusClient::urlArguments(std::vector<std::string>(50, "x"))), 10), 11u);
  EXPECT_EQ(countIn(messageOf(BusClient::textArgument("text"))), std::nullopt);
  EXPECT_EQ(countIn(messageOf(nullptr)), std::nullopt);
  const auto cut = messageOf(BusClient::urlArguments({"one", "two"}));
  EXPECT_EQ(countIn(cut.substr(0, cut.size() - 2)), std::nullopt);
}

}  // namespace
}  // namespace vornet::service
