#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "platform/Foundation.hpp"
#include "support/BinaryList.hpp"
#include "support/ChildProcess.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

using namespace std::string_literals;

constexpr std::size_t MOST_BYTES = std::size_t{256} << 10;

std::string xml(std::string_view content) {
  constexpr std::string_view head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";
  return std::string(head).append(content).append("\n</plist>\n");
}

std::string binary(std::string_view content) {
  const std::string text = xml(content);
  plist_t list = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &list);
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(list, &bytes, &length);
  std::string out(bytes, length);
  std::free(bytes);
  plist_free(list);
  return out;
}

class PropertyListTest : public testing::Test {
 protected:
  std::optional<PropertyList> read(std::string_view bytes) const {
    test::writeFile(path, bytes);
    return PropertyList::dictionaryAtPath(path);
  }
  /// The list with `content` as read in each of the two formats.
  std::vector<PropertyList> readInBothFormats(std::string_view content) const {
    return {read(xml(content)).value(), read(binary(content)).value()};
  }
  test::TemporaryFolder folder;
  const std::string path = folder / "list.plist";
};

TEST_F(PropertyListTest, ReadsXMLAndBinaryWithTextOfAllLanguages) {
  const std::string content =
      "<dict><key>root_dir</key><string>/home/ann/Kelvane</string><key>ü</key><string>/日本/🙂 &amp; &lt;b&gt; "
      "&#252;</string><key>e</key><string>cafe\u0301</string></dict>";
  ASSERT_TRUE(binary(content).starts_with("bplist00"));
  for (const auto& list : readInBothFormats(content)) {
    EXPECT_EQ(list.textForKey("root_dir"), "/home/ann/Kelvane");
    EXPECT_EQ(list.textForKey("ü"), "/日本/🙂 & <b> ü");
    EXPECT_EQ(list.textForKey("e"), "cafe\u0301");
  }
}

TEST_F(PropertyListTest, ReadsEmptyText) {
  for (const auto& list : readInBothFormats("<dict><key>a</key><string></string><key>b</key><string/></dict>"))
    for (const char* key : {"a", "b"}) EXPECT_EQ(list.textForKey(key), "") << key;
}

TEST_F(PropertyListTest, HasNoTextForAMissingKey) {
  for (const char* content : {"<dict><key>a</key><string>x</string></dict>", "<dict></dict>", "<dict/>"})
    for (const auto& list : readInBothFormats(content))
      for (const char* key : {"root_dir", "", "A"}) EXPECT_EQ(list.textForKey(key), std::nullopt) << content << key;
}

TEST_F(PropertyListTest, HasNoTextForOtherValues) {
  for (const auto& list : readInBothFormats(
           "<dict><key>i</key><integer>5</integer><key>b</key><true/><key>r</key><real>1.5</real>"
           "<key>a</key><array><string>x</string></array><key>d</key><dict><key>root_dir</key><string>x</string></dict>"
           "<key>t</key><date>2016-03-01T14:05:09Z</date><key>y</key><data>eA==</data></dict>"))
    for (const char* key : {"i", "b", "r", "a", "d", "t", "y", "root_dir"})
      EXPECT_EQ(list.textForKey(key), std::nullopt) << key;
}

TEST_F(PropertyListTest, IsAbsentWhenATextHoldsANUL) {
  for (const char* text : {"/home/ann", "/\u65e5/ann"}) {  // the second one is in two-byte units
    auto bytes = binary("<dict><key>root_dir</key><string>"s + text + "</string></dict>");
    bytes.at(bytes.find("ann") != std::string::npos ? bytes.find("ann") : bytes.find("a\0n\0n"s)) = '\0';
    EXPECT_FALSE(read(bytes)) << text;
  }
}

TEST_F(PropertyListTest, IsAbsentWhenItsTopIsNoDictionary) {
  for (const char* content : {"<array><dict><key>root_dir</key><string>x</string></dict></array>",
                              "<string>root_dir</string>", "<integer>1</integer>", "<true/>"}) {
    EXPECT_FALSE(read(xml(content))) << content;
    EXPECT_FALSE(read(binary(content))) << content;
  }
}

TEST_F(PropertyListTest, IsAbsentWhenThereIsNoRegularFile) {
  std::filesystem::create_symlink("nothing", folder / "dangling");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);  // a reader must not wait for its writer
  for (const std::string& file : {path, ""s, folder.path().string(), folder / "dangling", folder / "pipe"})
    EXPECT_FALSE(PropertyList::dictionaryAtPath(file)) << file;
}

TEST_F(PropertyListTest, IsAbsentWhenItIsNoPropertyList) {
  const std::string good = xml("<dict><key>root_dir</key><string>x</string></dict>");
  for (const std::string& bytes : {""s, "hello"s, "{\"root_dir\": \"x\"}"s, std::string(1000, '\0'), "bplist00"s,
                                   "bplist00 and nothing that follows from it, to be sure"s, "<html></html>"s,
                                   "<plist>"s, "\xFF\xFE"s, good.substr(0, good.size() / 2)}) {
    EXPECT_FALSE(read(bytes)) << bytes;
  }
}

TEST_F(PropertyListTest, SurvivesFilesCutOffAnywhereAndFilesWithAnyByteChanged) {
  const auto survives = [this](std::string_view bytes) {
    if (const auto list = read(bytes)) list->textForKey("root_dir");
  };
  const std::string content =
      "<dict><key>root_dir</key><string>/home/ann</string><key>n</key><integer>1</integer></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      survives(bytes.substr(0, i));
      for (const char change : {'\0', '\xFF', '<', '\x7F'}) {
        std::string changed = bytes;
        changed[i] = change;
        survives(changed);
      }
    }
  }
}

TEST_F(PropertyListTest, IsReadUpTo256Kibibytes) {
  const std::string list = xml("<dict><key>root_dir</key><string>x</string></dict>");
  const auto padded = [&](std::size_t size) { return list + std::string(size - list.size(), ' '); };
  const auto largest = read(padded(MOST_BYTES));
  ASSERT_TRUE(largest);
  EXPECT_EQ(largest->textForKey("root_dir"), "x");
  EXPECT_FALSE(read(padded(MOST_BYTES + 1)));
  EXPECT_FALSE(read(padded(3 * MOST_BYTES)));
  EXPECT_FALSE(PropertyList::dictionaryAtPath("/dev/zero"));
}

/// Lists that a reader by recursion, or by copying, would not survive.
std::vector<std::string> hostileLists() {
  std::vector<std::string> lists = {test::BinaryList::nested(100'000), test::BinaryList::nested(9'000),
                                    test::BinaryList::doubling(20)};
  test::BinaryList self;
  self.dictionary({1}, {0});
  self.text("root_dir");
  lists.push_back(self.bytes());
  for (const std::string_view opening : {"<dict><key>a</key>", "<array>"}) {
    std::string nested = "<plist><dict><key>a</key>";
    while (nested.size() < MOST_BYTES - 20) nested += opening;
    lists.push_back(nested);
  }
  return lists;
}

/// The most memory that this process has had so far, in kB.
long peakMemory() {
  struct rusage usage;
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(PropertyListTest, IsAbsentWithoutMuchStackOrMemoryWhenItIsBuiltToTakeThem) {
  const auto lists = hostileLists();
  test::ChildProcess child([&] {
    int refused = 0;
    // The readers run on threads: each has the stack of one.
    std::thread([&] {
      const long before = peakMemory();
      for (const auto& list : lists) refused += read(list) ? 0 : 1;
      if (peakMemory() - before > 32 * 1024) refused += 100;
    }).join();
    return refused;
  });
  EXPECT_EQ(child.wait(), static_cast<int>(lists.size()));
}

TEST_F(PropertyListTest, MayBeCopiedAndReadByManyThreads) {
  const auto list = read(xml("<dict><key>root_dir</key><string>/home/ann</string></dict>"));
  ASSERT_TRUE(list);
  test::inParallel(4, [&](std::size_t) {
    const PropertyList copy = *list;
    for (int round = 0; round < 50; ++round) {
      EXPECT_EQ(copy.textForKey("root_dir"), "/home/ann");
      const auto own = PropertyList::dictionaryAtPath(path);
      ASSERT_TRUE(own);
      EXPECT_EQ(own->textForKey("root_dir"), "/home/ann");
    }
  });
}

}  // namespace
}  // namespace vornet::platform
