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

namespace vornet::platform {
namespace {

using namespace std::string_literals;

constexpr std::string_view HEAD =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view TAIL = "\n</plist>\n";

constexpr std::size_t MOST_BYTES = std::size_t{256} << 10;

std::string xml(std::string_view content) {
  return std::string(HEAD).append(content).append(TAIL);
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
  test::TemporaryFolder folder;
  const std::string path = folder / "list.plist";
};

TEST_F(PropertyListTest, ReadsXML) {
  const auto list = read(xml("<dict><key>root_dir</key><string>/home/ann/Kelvane</string></dict>"));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->textForKey("root_dir"), "/home/ann/Kelvane");
}

TEST_F(PropertyListTest, ReadsBinary) {
  const auto bytes = binary("<dict><key>root_dir</key><string>/home/ann/Kelvane</string></dict>");
  ASSERT_TRUE(bytes.starts_with("bplist00"));
  const auto list = read(bytes);
  ASSERT_TRUE(list);
  EXPECT_EQ(list->textForKey("root_dir"), "/home/ann/Kelvane");
}

TEST_F(PropertyListTest, ReadsTextOfAllLanguages) {
  const std::string content =
      "<dict><key>ü</key><string>/日本/🙂 &amp; &lt;b&gt; "
      "&#252;</string><key>e</key><string>cafe\u0301</string></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    const auto list = read(bytes);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->textForKey("ü"), "/日本/🙂 & <b> ü");
    EXPECT_EQ(list->textForKey("e"), "cafe\u0301");
  }
}

TEST_F(PropertyListTest, ReadsEmptyText) {
  const std::string content = "<dict><key>a</key><string></string><key>b</key><string/></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    const auto list = read(bytes);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->textForKey("a"), "");
    EXPECT_EQ(list->textForKey("b"), "");
  }
}

TEST_F(PropertyListTest, HasNoTextForAMissingKey) {
  for (const auto& bytes :
       {xml("<dict><key>a</key><string>x</string></dict>"), xml("<dict></dict>"), xml("<dict/>"), binary("<dict/>")}) {
    const auto list = read(bytes);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->textForKey("root_dir"), std::nullopt);
    EXPECT_EQ(list->textForKey(""), std::nullopt);
    EXPECT_EQ(list->textForKey("A"), std::nullopt);
  }
}

TEST_F(PropertyListTest, HasNoTextForOtherValues) {
  const std::string content =
      "<dict><key>i</key><integer>5</integer><key>b</key><true/><key>r</key><real>1.5</real>"
      "<key>a</key><array><string>x</string></array><key>d</key><dict><key>root_dir</key><string>x</string></dict>"
      "<key>t</key><date>2016-03-01T14:05:09Z</date><key>y</key><data>eA==</data></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    const auto list = read(bytes);
    ASSERT_TRUE(list);
    for (const char* key : {"i", "b", "r", "a", "d", "t", "y", "root_dir"})
      EXPECT_EQ(list->textForKey(key), std::nullopt) << key;
  }
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

TEST_F(PropertyListTest, IsAbsentWhenThereIsNoFile) {
  EXPECT_FALSE(PropertyList::dictionaryAtPath(path));
  EXPECT_FALSE(PropertyList::dictionaryAtPath(""));
  EXPECT_FALSE(PropertyList::dictionaryAtPath(folder.path().string()));
  std::filesystem::create_symlink("nothing", path);
  EXPECT_FALSE(PropertyList::dictionaryAtPath(path));
}

TEST_F(PropertyListTest, IsAbsentWhenItIsNoPropertyList) {
  const std::string good = xml("<dict><key>root_dir</key><string>x</string></dict>");
  for (const std::string& bytes :
       {std::string(), std::string("hello"), std::string("{\"root_dir\": \"x\"}"), std::string(1000, '\0'),
        std::string("bplist00"), std::string("bplist00 and nothing that follows from it, to be sure"),
        std::string("<html></html>"), std::string("<plist>"), std::string("\xFF\xFE"),
        good.substr(0, good.size() / 2)}) {
    EXPECT_FALSE(read(bytes)) << bytes;
  }
}

TEST_F(PropertyListTest, SurvivesFilesCutOffAnywhere) {
  const std::string content =
      "<dict><key>root_dir</key><string>/home/ann</string><key>n</key><integer>1</integer></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    for (std::size_t length = 0; length < bytes.size(); ++length)
      if (const auto list = read(std::string_view(bytes).substr(0, length))) list->textForKey("root_dir");
  }
}

TEST_F(PropertyListTest, SurvivesFilesWithAnyByteChanged) {
  const std::string content =
      "<dict><key>root_dir</key><string>/home/ann</string><key>n</key><integer>1</integer></dict>";
  for (const auto& bytes : {xml(content), binary(content)}) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      for (const char change : {'\0', '\xFF', '<', '\x7F'}) {
        std::string changed = bytes;
        changed[i] = change;
        if (const auto list = read(changed)) list->textForKey("root_dir");
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
    std::string nested = std::string(HEAD) + "<dict><key>a</key>";
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

TEST_F(PropertyListTest, IsAbsentWhenItIsNoRegularFile) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(PropertyList::dictionaryAtPath(path)) << "without waiting for a writer";
}

TEST_F(PropertyListTest, MayBeCopiedAndReadByManyThreads) {
  const auto list = read(xml("<dict><key>root_dir</key><string>/home/ann</string></dict>"));
  ASSERT_TRUE(list);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, copy = *list] {
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(copy.textForKey("root_dir"), "/home/ann");
        const auto own = PropertyList::dictionaryAtPath(path);
        ASSERT_TRUE(own);
        EXPECT_EQ(own->textForKey("root_dir"), "/home/ann");
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace vornet::platform
