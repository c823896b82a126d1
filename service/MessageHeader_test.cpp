#include "MessageHeader.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/BusClient.hpp"

namespace vornet::service {
namespace {

using test::textList;

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
    const auto bytes = messageOf(g_variant_new("(@as)", textList({"one", "two"})), order);
    const auto length = messageLength(bytes);
    ASSERT_TRUE(length);
    EXPECT_EQ(length->total, bytes.size());
    EXPECT_LT(length->header, bytes.size());
    const auto header = readMessageHeader(bytes);
    ASSERT_TRUE(header);
    EXPECT_EQ(header->type, MessageType::call);
    EXPECT_EQ(header->sender, ":1.7");
    EXPECT_EQ(header->member, "Member");
    EXPECT_EQ(header->signature, "as");
    EXPECT_EQ(header->serial, 0x01020304u);
    EXPECT_TRUE(header->replyExpected);
    EXPECT_EQ(countIn(bytes), 2u);
  }
}

TEST(MessageHeader, KnowsWhetherAnAnswerIsAwaited) {
  auto bytes = messageOf(nullptr);
  bytes[2] = 1;
  const auto header = readMessageHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_FALSE(header->replyExpected);
}

TEST(MessageHeader, RefusesMalformedMessages) {
  const auto good = messageOf(nullptr);
  EXPECT_FALSE(messageLength(good.substr(0, MESSAGE_START - 1)));
  EXPECT_FALSE(readMessageHeader(good.substr(0, messageLength(good)->header - 1)));
  for (const auto& [place, value] : std::vector<std::pair<std::size_t, char>>{{0, 'x'}, {3, 2}}) {
    auto bad = good;
    bad[place] = value;
    EXPECT_FALSE(messageLength(bad)) << place;
  }
  auto unknownType = good;
  unknownType[1] = 9;
  EXPECT_FALSE(readMessageHeader(unknownType));
  auto longer = good;
  longer[7] = '\x7f';  // a body of two gigabytes
  EXPECT_FALSE(messageLength(longer));
  longer = good;
  longer[15] = '\x7f';  // such fields
  EXPECT_FALSE(messageLength(longer));
}

TEST(MessageHeader, RefusesATextThatHoldsANul) {
  auto member = messageOf(nullptr);
  member[member.find("Member") + 3] = '\0';  // GLib would read "Mem"
  EXPECT_FALSE(readMessageHeader(member));
  auto listed = messageOf(g_variant_new("(@as)", textList({"one", "two"})));
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
  const auto good = messageOf(g_variant_new("(@as)", textList({"one", "two", "three"})));
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
  EXPECT_EQ(countIn(messageOf(g_variant_new("(@as)", textList({})))), 0u);
  EXPECT_EQ(countIn(messageOf(g_variant_new("(s@as)", "share:", textList({"a", "bcd"})))), 2u);
  EXPECT_EQ(countIn(messageOf(g_variant_new("(@as)", textList(std::vector<std::string>(50, "x")))), 10), 11u);
  EXPECT_EQ(countIn(messageOf(g_variant_new("(s)", "text"))), std::nullopt);
  EXPECT_EQ(countIn(messageOf(nullptr)), std::nullopt);
  const auto cut = messageOf(g_variant_new("(@as)", textList({"one", "two"})));
  EXPECT_EQ(countIn(cut.substr(0, cut.size() - 2)), std::nullopt);
}

}  // namespace
}  // namespace vornet::service
