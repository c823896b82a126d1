#include "platform/PropertyListScan.hpp"

#include <gtest/gtest.h>

#include "support/BinaryList.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_literals;
using test::BinaryList;
using Format = PropertyListFormat;

std::string xml(std::string_view content) {
  constexpr std::string_view head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  return std::string(head).append(content).append("\n</plist>\n");
}
std::string repeated(std::string_view text, std::size_t times) {
  std::string out;
  for (std::size_t i = 0; i < times; ++i) out += text;
  return out;
}

bool isXML(std::string_view content) {
  return scanPropertyList(xml(content)) == Format::xml;
}
bool isBinary(const std::string& bytes) {
  return scanPropertyList(bytes) == Format::binary;
}

// --- Binary

/// A dictionary with one key, whose value is added next: the object 2.
BinaryList withKey() {
  BinaryList list;
  list.dictionary({1}, {2});
  list.text("k");
  return list;
}
/// One whose value is the object `bytes`.
std::string holding(const std::string& bytes) {
  BinaryList list = withKey();
  list.add(bytes);
  return list.bytes();
}
/// One with a text.
BinaryList plain() {
  BinaryList list = withKey();
  list.text("/home/ann");
  return list;
}

TEST(BinaryListScan, PassesWhatWritersMake) {
  EXPECT_TRUE(isBinary(plain().bytes()));
  for (const std::string& bytes :
       {"\x08"s, "\x09"s, "\x00"s, "\x10\x05"s, "\x14"s + std::string(16, '\1'), "\x23"s + std::string(8, '\0'),
        "\x33"s + std::string(8, '\0'), "\x43xyz"s, BinaryList::object(4, 300) + std::string(300, '\xFF'), "\x50"s,
        "\x62\xD8\x3D\xDE\x00"s, "\x61\0e"s, "\x80\x01"s, "\xA0"s, "\xD0"s, "\xC0"s}) {
    EXPECT_TRUE(isBinary(holding(bytes))) << ::testing::PrintToString(bytes);
  }
}

TEST(BinaryListScan, PassesValuesReferredToMoreThanOnce) {
  BinaryList list;
  list.dictionary({1, 2}, {3, 3});
  list.text("a");
  list.text("b");
  list.array({1, 1});
  EXPECT_TRUE(isBinary(list.bytes()));
}

TEST(BinaryListScan, RefusesListsThatExpandTooMuch) {
  for (const std::size_t levels : {14U, 20U, 60U}) EXPECT_FALSE(isBinary(BinaryList::doubling(levels))) << levels;
  EXPECT_TRUE(isBinary(BinaryList::doubling(10)));
  // A hundred references to a hundred thousand bytes, of either kind of text.
  for (const auto& start : {BinaryList::object(5, 100'000), BinaryList::object(6, 50'000)}) {
    BinaryList list = withKey();
    list.array(std::vector<std::size_t>(100, 3));
    list.add(start + std::string(100'000, 'x'));
    EXPECT_FALSE(isBinary(list.bytes())) << ::testing::PrintToString(start);
  }
}

TEST(BinaryListScan, RefusesCycles) {
  BinaryList self;
  self.dictionary({1}, {0});
  self.text("k");
  EXPECT_FALSE(isBinary(self.bytes()));
  BinaryList round = withKey();
  round.array({3});
  round.array({2});
  EXPECT_FALSE(isBinary(round.bytes()));
}

TEST(BinaryListScan, BoundsTheDepth) {
  EXPECT_TRUE(isBinary(BinaryList::nested(MAX_PROPERTY_LIST_DEPTH)));
  EXPECT_FALSE(isBinary(BinaryList::nested(MAX_PROPERTY_LIST_DEPTH + 1)));
  EXPECT_FALSE(isBinary(BinaryList::nested(9'000)));
}

TEST(BinaryListScan, BoundsTheNumberOfObjects) {
  const auto list = [](std::size_t texts) {
    BinaryList made;
    made.array(std::vector<std::size_t>(texts, 1));
    made.text("x");
    return made.bytes();
  };
  EXPECT_TRUE(isBinary(list(MAX_PROPERTY_LIST_OBJECTS - 1)));
  EXPECT_FALSE(isBinary(list(MAX_PROPERTY_LIST_OBJECTS)));
  BinaryList unused = plain();
  for (std::size_t i = 0; i <= MAX_PROPERTY_LIST_OBJECTS; ++i) unused.add("\x09");
  EXPECT_FALSE(isBinary(unused.bytes()));
}

TEST(BinaryListScan, RefusesTrailersThatPointElsewhere) {
  using Trailer = BinaryList::Trailer;
  const auto size = static_cast<std::int64_t>(plain().bytes().size());
  constexpr std::int64_t HUGE = std::int64_t{1} << 62;
  for (const Trailer& trailer :
       {Trailer{.top = 3}, Trailer{.top = -1}, Trailer{.top = HUGE}, Trailer{.count = 4}, Trailer{.count = 0},
        Trailer{.count = HUGE}, Trailer{.count = HUGE / 2 + 1}, Trailer{.table = 0}, Trailer{.table = 7},
        Trailer{.table = size - 31}, Trailer{.table = size}, Trailer{.table = HUGE}, Trailer{.offsetSize = 0},
        Trailer{.offsetSize = 9}, Trailer{.offsetSize = 255}, Trailer{.referenceSize = 0}, Trailer{.referenceSize = 9},
        Trailer{.referenceSize = 255}, Trailer{.referenceSize = 8}}) {
    EXPECT_FALSE(isBinary(plain().bytes(trailer)))
        << trailer.top << ' ' << trailer.count << ' ' << trailer.table << ' ' << trailer.offsetSize;
  }
  for (const int offsetSize : {1, 2, 3, 8}) EXPECT_TRUE(isBinary(plain().bytes({.offsetSize = offsetSize})));
}

TEST(BinaryListScan, RefusesObjectsThatReachBeyondTheirPlace) {
  const std::string much = BinaryList::bigEndian(~std::uint64_t{0}, 8);
  const std::string half = BinaryList::bigEndian(std::uint64_t{1} << 63, 8);
  for (const unsigned kind : {0x4U, 0x5U, 0x6U, 0xAU, 0xCU, 0xDU}) {
    const std::string marker(1, static_cast<char>(kind << 4 | 0xF));
    for (const auto& count : {"\x13" + much, "\x13" + half, "\x14" + much + much, "\x23" + much, "\x13"s, ""s})
      EXPECT_FALSE(isBinary(holding(marker + count))) << kind << ' ' << ::testing::PrintToString(count);
    EXPECT_FALSE(isBinary(holding(std::string(1, static_cast<char>(kind << 4 | 1))))) << kind;
  }
  for (const std::string& bytes : {"\x13"s, "\x15"s + std::string(32, '\0'), "\x23\0"s, "\x33"s, "\x8F"s, ""s})
    EXPECT_FALSE(isBinary(holding(bytes))) << ::testing::PrintToString(bytes);
}

TEST(BinaryListScan, RefusesUnknownObjectsAndKeysThatAreNoText) {
  for (const unsigned kind : {0x7U, 0x9U, 0xBU, 0xEU, 0xFU})
    EXPECT_FALSE(isBinary(holding(std::string(1, static_cast<char>(kind << 4))))) << kind;
  BinaryList list;
  list.dictionary({1}, {1});
  list.add("\x09");
  EXPECT_FALSE(isBinary(list.bytes()));
}

TEST(BinaryListScan, RefusesBrokenText) {
  for (const std::string& bytes : {"\x51\xFF"s, "\x61\xD8\x00"s, "\x61\xDC\x00"s,
                                   "\x62\xD8\x00\x00"
                                   "a"s,
                                   "\x62\xDC\x00\xD8\x00"s}) {
    EXPECT_FALSE(isBinary(holding(bytes))) << ::testing::PrintToString(bytes);
  }
}

TEST(BinaryListScan, RefusesTextThatHoldsANUL) {
  // A reader with texts of C would take the text before it for the whole.
  for (const std::string& bytes : {"\x51\0"s, "\x58/srv\0/it"s, "\x54/it\0"s, "\x61\0\0"s, "\x63\0/\0\0\0a"s})
    EXPECT_FALSE(isBinary(holding(bytes))) << ::testing::PrintToString(bytes);
  for (const std::string& key : {"\x52k\0"s, "\x62\0k\0\0"s}) {
    BinaryList list;
    list.dictionary({1}, {2});
    list.add(key);
    list.text("/home/ann");
    EXPECT_FALSE(isBinary(list.bytes())) << ::testing::PrintToString(key);
  }
}

TEST(BinaryListScan, RefusesTooFewBytes) {
  for (const std::string& rest : {""s, std::string(31, '\0'), std::string(32, '\0')})
    EXPECT_FALSE(isBinary("bplist00" + rest)) << rest.size();
  std::string other = plain().bytes();
  other[7] = '1';
  EXPECT_EQ(scanPropertyList(other), Format::none);
}

// --- XML

TEST(XMLListScan, PassesWhatWritersMake) {
  EXPECT_TRUE(isXML("<dict><key>root_dir</key><string>/home/ann &amp; co &#252;&#xFC;</string></dict>"));
  EXPECT_TRUE(
      isXML("<dict>\n\t<!-- a > comment -->\n\t<key>a</key>\r\n<array><true/><false/><integer>1</integer>"
            "<real>1.5</real><date>2016-03-01T14:05:09Z</date><data>eA==</data><string/><dict/><array/>"
            "<dict></dict><string><![CDATA[<&>]]></string><true></true></array></dict>"));
  EXPECT_EQ(scanPropertyList("<plist><dict/></plist>"), Format::xml);
  EXPECT_EQ(scanPropertyList("\xEF\xBB\xBF<?xml version='1.0'?><plist version='1.0'><dict/></plist>"), Format::xml);
  EXPECT_EQ(scanPropertyList(xml("<dict/>") + std::string(1000, ' ')), Format::xml);
}

TEST(XMLListScan, RefusesIncompleteLists) {
  const std::string good = xml("<dict><key>root_dir</key><string>/home/ann</string><key>n</key><true/></dict>");
  for (std::size_t length = 0; length < good.size() - 1; ++length)
    EXPECT_EQ(scanPropertyList(std::string_view(good).substr(0, length)), Format::none) << length;
  for (const std::string& more : {"x"s, good, "\0"s}) EXPECT_EQ(scanPropertyList(good + more), Format::none) << more;
}

TEST(XMLListScan, RefusesOtherShapes) {
  for (const char* content :
       {"", "text", "<dict>text</dict>", "<dict></array>", "<dict/></dict>", "<dict><key>a</dict>", "<html/>",
        "<string><b/></string>", "<dict/><dict/>", "<plist><dict/></plist>", "< string>x</string>",
        "<string>x</string a=\"b\">", "</string/>", "<string>x<!-- </string>", "<string>x<![CDATA[ </string>",
        "<?php?><dict/>", "<!DOCTYPE a><dict/>", "<!ENTITY a \"b\"><dict/>"}) {
    EXPECT_FALSE(isXML(content)) << content;
  }
  for (const char* list : {"<dict><key>root_dir</key><string>x</string></dict>", "<plist/>",
                           "{ root_dir = \"/home/ann\"; }", "{\"root_dir\": \"/home/ann\"}"}) {
    EXPECT_EQ(scanPropertyList(list), Format::none) << list;
  }
}

TEST(XMLListScan, RefusesBrokenReferencesToCharacters) {
  for (const std::string& text : {"&"s, "&nbsp;"s, "&a;"s, "&#0;"s, "&#xD800;"s, "&#x110000;"s,
                                  "&#99999999999999999999;"s, "&#-1;"s, "&#x;"s, "&#65"s})
    EXPECT_FALSE(isXML("<string>" + text + "</string>")) << text;
}

TEST(XMLListScan, RefusesBrokenAttributes) {
  for (const std::string& attribute : {"a=\"<\""s, "a=b"s, "a"s, "a=\"1"s})
    EXPECT_FALSE(isXML("<string " + attribute + ">x</string>")) << attribute;
}

TEST(XMLListScan, RefusesInternalEntities) {
  for (const char* type : {"<!DOCTYPE plist [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;\">]>", "<!DOCTYPE plist [ ]>",
                           "<!DOCTYPE plist <!ENTITY a \"b\"> >"}) {
    EXPECT_EQ(scanPropertyList(std::string(type) + "<plist><dict/></plist>"), Format::none) << type;
  }
}

TEST(XMLListScan, RefusesTextThatIsNotUTF8) {
  for (const std::string& text : {"\xFF"s, "\xED\xA0\x80"s, "\0"s})
    EXPECT_FALSE(isXML("<string>" + text + "</string>")) << ::testing::PrintToString(text);
  EXPECT_EQ(scanPropertyList("\xFF\xFE<\0p\0l\0i\0s\0t\0"s), Format::none);
}

TEST(XMLListScan, BoundsTheDepth) {
  const auto nested = [](std::size_t depth) {
    return isXML(repeated("<array>", depth) + "<true/>" + repeated("</array>", depth));
  };
  EXPECT_TRUE(nested(MAX_PROPERTY_LIST_DEPTH));
  EXPECT_FALSE(nested(MAX_PROPERTY_LIST_DEPTH + 1));
  EXPECT_FALSE(nested(10'000));
}

TEST(XMLListScan, BoundsTheNumberOfObjects) {
  const auto list = [](std::size_t count) { return isXML("<array>" + repeated("<true/>", count) + "</array>"); };
  EXPECT_TRUE(list(MAX_PROPERTY_LIST_OBJECTS - 1));
  EXPECT_FALSE(list(MAX_PROPERTY_LIST_OBJECTS));
  const auto text = [](std::size_t count) { return isXML("<string>" + repeated("&amp;", count) + "</string>"); };
  EXPECT_TRUE(text(MAX_PROPERTY_LIST_OBJECTS - 1));
  EXPECT_FALSE(text(MAX_PROPERTY_LIST_OBJECTS));
}

TEST(XMLListScan, BoundsTheSize) {
  const auto padded = [](std::size_t size) {
    const std::string list = xml("<dict/>");
    return scanPropertyList(list + std::string(size - list.size(), ' '));
  };
  EXPECT_EQ(padded(MAX_PROPERTY_LIST_BYTES), Format::xml);
  EXPECT_EQ(padded(MAX_PROPERTY_LIST_BYTES + 1), Format::none);
}

}  // namespace
}  // namespace vornet::platform
