#include "platform/PropertyListScan.hpp"

#include <gtest/gtest.h>

#include "support/BinaryList.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_literals;
using test::BinaryList;
using Format = PropertyListFormat;

constexpr std::string_view HEAD =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string xml(std::string_view content) {
  return std::string(HEAD).append(content).append("\n</plist>\n");
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

/// A dictionary with one text.
BinaryList plain() {
  BinaryList list;
  list.dictionary({1}, {2});
  list.text("root_dir");
  list.text("/home/ann");
  return list;
}
/// A dictionary whose value is the object `bytes`.
std::string holding(const std::string& bytes) {
  BinaryList list;
  list.dictionary({1}, {2});
  list.text("k");
  list.add(bytes);
  return list.bytes();
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
  // A hundred references to a hundred thousand bytes.
  BinaryList list;
  list.dictionary({1}, {2});
  list.text("k");
  list.array(std::vector<std::size_t>(100, 3));
  list.text(std::string(100'000, 'x'));
  EXPECT_FALSE(isBinary(list.bytes()));
  BinaryList wide;
  wide.dictionary({1}, {2});
  wide.text("k");
  wide.array(std::vector<std::size_t>(100, 3));
  wide.add(BinaryList::object(6, 50'000) + std::string(100'000, 'x'));
  EXPECT_FALSE(isBinary(wide.bytes()));
}

TEST(BinaryListScan, RefusesCycles) {
  BinaryList self;
  self.dictionary({1}, {0});
  self.text("k");
  EXPECT_FALSE(isBinary(self.bytes()));
  BinaryList round;
  round.dictionary({1}, {2});
  round.text("k");
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
    for (const auto& count : {much, half}) EXPECT_FALSE(isBinary(holding(marker + '\x13' + count))) << kind;
    EXPECT_FALSE(isBinary(holding(marker + '\x14' + much + much))) << kind;
    EXPECT_FALSE(isBinary(holding(marker + '\x23' + much))) << kind;
    EXPECT_FALSE(isBinary(holding(marker))) << kind;
    EXPECT_FALSE(isBinary(holding(marker + '\x13'))) << kind;
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
  EXPECT_FALSE(isBinary("bplist00"));
  EXPECT_FALSE(isBinary("bplist00" + std::string(31, '\0')));
  EXPECT_FALSE(isBinary("bplist00" + std::string(32, '\0')));
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
  EXPECT_EQ(scanPropertyList(good + "x"), Format::none);
  EXPECT_EQ(scanPropertyList(good + good), Format::none);
  EXPECT_EQ(scanPropertyList(good + '\0'), Format::none);
}

TEST(XMLListScan, RefusesOtherShapes) {
  for (const char* content : {"",
                              "text",
                              "<dict>text</dict>",
                              "<dict></array>",
                              "<dict/></dict>",
                              "<dict><key>a</dict>",
                              "<html/>",
                              "<string><b/></string>",
                              "<dict/><dict/>",
                              "<plist><dict/></plist>",
                              "<string>&</string>",
                              "<string>&nbsp;</string>",
                              "<string>&#0;</string>",
                              "<string>&#xD800;</string>",
                              "<string>&#x110000;</string>",
                              "<string>&#99999999999999999999;</string>",
                              "<string>&#-1;</string>",
                              "<string>&#x;</string>",
                              "<string>&#65</string>",
                              "<string>&a;</string>",
                              "<string a=\"<\">x</string>",
                              "<string a=b>x</string>",
                              "<string a>x</string>",
                              "<string a=\"1>x</string>",
                              "< string>x</string>",
                              "<string>x</string a=\"b\">",
                              "<string>x<!-- </string>",
                              "<string>x<![CDATA[ </string>",
                              "<?php?><dict/>",
                              "<!DOCTYPE a><dict/>",
                              "</string/>",
                              "<!ENTITY a \"b\"><dict/>"}) {
    EXPECT_FALSE(isXML(content)) << content;
  }
  EXPECT_EQ(scanPropertyList("<dict><key>root_dir</key><string>x</string></dict>"), Format::none);
  EXPECT_EQ(scanPropertyList("<plist/>"), Format::none);
  EXPECT_EQ(scanPropertyList("{ root_dir = \"/home/ann\"; }"), Format::none);
  EXPECT_EQ(scanPropertyList("{\"root_dir\": \"/home/ann\"}"), Format::none);
}

TEST(XMLListScan, RefusesInternalEntities) {
  for (const char* type : {"<!DOCTYPE plist [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;\">]>", "<!DOCTYPE plist [ ]>",
                           "<!DOCTYPE plist <!ENTITY a \"b\"> >"}) {
    EXPECT_EQ(scanPropertyList(std::string(type) + "<plist><dict/></plist>"), Format::none) << type;
  }
}

TEST(XMLListScan, RefusesTextThatIsNotUTF8) {
  EXPECT_FALSE(isXML("<string>\xFF</string>"));
  EXPECT_FALSE(isXML("<string>\xED\xA0\x80</string>"));
  EXPECT_FALSE(isXML("<string>\0</string>"s));
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
