// The extension process and a sync application that misbehaves: replies of every size and shape, and a server that
// belongs to another user.
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ChildProcess.hpp"
#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr std::size_t MEBIBYTE = std::size_t{1} << 20;

class SyncApplicationLink : public ExtensionTest {
 protected:
  /// The statuses of the synced folder are `first` and then `second`, where "x" is pending and then synced.
  std::map<std::string, std::string> changesBetween(const char* first, const char* second) {
    SyncApplication application;
    application.setBody("/", first);
    startConfigured();
    EXPECT_TRUE(client->beginObserving(url()));
    EXPECT_TRUE(waitForBadge("x", "PENDING"));
    application.setBody("/", second);
    EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
    return client->changes();
  }
};

// --- Replies of every shape -----------------------------------------------------------------------------------------

TEST_F(SyncApplicationLink, AKeyWithANulIsIgnoredAndTheOthersCount) {
  EXPECT_THAT(changesBetween(R"({"/a\u0000b":2,"\u0000":2,"/x":1,"/x\u0000":2})",
                             R"({"/a\u0000b":1,"\u0000":1,"/x\u0000":1,"/x":2})"),
              Not(testing::Contains(testing::Key(HasSubstr("%00")))));
}

TEST_F(SyncApplicationLink, AKeyThatNamesNoItemOfItsFolderIsSentToNobody) {
  EXPECT_THAT(changesBetween(R"({"/.":2,"/..":2,"/x":1})", R"({"/.":1,"/..":1,"/x":2})"),
              testing::ElementsAre(testing::Key(url("x"))))
      << "it refuses such URLs itself";
}

// --- Another user's server ------------------------------------------------------------------------------------------

/// A process of another user that listens where the sync application would, and answers every request as that would.
class Stranger {
 public:
  Stranger() {
    if (!listening_.passInTime()) throw std::runtime_error("the other user's server does not listen");
  }

  /// Ends it. The number of connections that it took.
  int connections() {
    ending_.open();
    return process_.wait();
  }

 private:
  int work() {
    constexpr uid_t NOBODY = 65534;
    if (!becomeUser(NOBODY)) return 1;
    const LoopbackServer server([](const WireRequest&) { return WireReply{.body = "[1]"}; });  // which no menu may be
    listening_.open();
    ending_.pass();
    return static_cast<int>(server.connections());
  }

  Gate listening_;
  Gate ending_;
  ChildProcess process_{[this] { return work(); }};
};

class AnotherUsersServer : public SyncApplicationLink {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be another user for a while";
  }
};

TEST_F(AnotherUsersServer, LearnsNothingAndIsNotTrusted) {
  Stranger stranger;
  startConfigured();
  const int first = process();
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(waitForLog("[Warning] [RESTPollingManager] poll: Skipping get_icons_for_fodler, ds not connected\n"));
  EXPECT_THAT(menu({"x"}), testing::AllOf(SizeIs(5), Each(testing::Field(&MenuEntry::enabled, false))));
  ASSERT_TRUE(client->performAction("share:", {url("x")}));
  EXPECT_THAT(logText(), HasSubstr("Unexpected error occured while fetching context menu: ResourceUnavailable\n"));
  EXPECT_EQ(client->extensionProcess(), first) << "its menu stops nobody";
  EXPECT_EQ(stranger.connections(), 0);
  // The port is free: the sync application is found at once when it is there.
  SyncApplication application;
  application.setBody("mac_populate_menu", R"({"1":true})");
  EXPECT_TRUE(menu({"x"}).at(0).enabled);
}

TEST_F(AnotherUsersServer, IsNamedByTheStatusInTheTerminal) {
  Stranger stranger;
  startConfigured();
  const auto plain = run({VORNET_VI, "status"});
  EXPECT_EQ(plain.status, 1);
  EXPECT_THAT(plain.output, HasSubstr("another user's process (of uid 65534) listens on 127.0.0.1:8806"));
  const auto json = run({VORNET_VI, "status", "--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.output, HasSubstr(R"("outcome":"another user","uid":65534)"));
  EXPECT_THAT(json.output, HasSubstr(R"("id":"sync-application-foreign")"));
  EXPECT_EQ(stranger.connections(), 0);
}

// --- Memory ---------------------------------------------------------------------------------------------------------

/// A figure of a process's memory from the kernel, in bytes.
std::size_t memoryOf(int process, const std::string& figure) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    std::size_t kibibytes = 0;
    if (word == figure + ":" && status >> kibibytes) return kibibytes << 10;
  }
  return 0;
}

/// A reply in which `part` comes again and again; a "#" in it is another number each time.
struct Shape {
  const char* name;
  std::string open, part, separator, close;

  /// About `size` bytes.
  std::string make(std::size_t size) const {
    std::string text = open;
    const auto number = part.find('#');
    for (int i = 1'000'000; text.size() < size; ++i) {
      if (text.size() > open.size()) text += separator;
      text += part;
      if (number != std::string::npos) text.replace(text.size() - part.size() + number, 1, std::to_string(i));
    }
    text += close;
    return text;
  }

  friend void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }
};

const Shape SHAPES[] = {
    {"NoIntegers", "{", R"("/d/#":"x")", ",", "}"},
    {"ShortNames", "{", R"("/d/#":2)", ",", "}"},
    {"NamesOfCommonLength", "{", R"("/d/A file of May #.txt": 2)", ",", "}"},
    {"NamesOfOtherFolders", "{", R"("#":2)", ",", "}"},
    {"EqualNames", "{", R"("/d/x":2)", ",", "}"},
    {"OneLongName", R"({"/d/)", "x", "", R"(":1})"},
    {"OneLongNameWithEscapes", R"({"/d/)", R"(\u0041)", "", R"(":1})"},
    {"OneLongText", R"({"/d/x":")", "x", "", R"("})"},
    {"Blanks", "", " ", "", "{}"},
    {"Lists", "[", std::string(500, '[') + std::string(500, ']'), ",", "]"},
    {"EmptyObjects", "[", "{}", ",", "]"},
};

class MemoryOfMenus : public SyncApplicationLink {
 protected:
  void SetUp() override {
    if (*VORNET_SANITIZED) GTEST_SKIP() << "a sanitizer has its own memory";
  }
};
class MemoryOfTheLink : public MemoryOfMenus, public testing::WithParamInterface<Shape> {};
INSTANTIATE_TEST_SUITE_P(Shapes, MemoryOfTheLink, testing::ValuesIn(SHAPES), testing::PrintToStringParamName());

TEST_P(MemoryOfTheLink, IsThreeTimesAReplyAtMostAndIsReleased) {
  constexpr std::size_t SIZE = 60 * MEBIBYTE;
  SyncApplication application;
  application.setBody("/", R"({"/x":1})");
  application.setBody("/d/", GetParam().make(SIZE));
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(waitForBadge("x", "PENDING"));
  const int served = client->extensionProcess();
  const auto before = memoryOf(served, "VmRSS");

  ASSERT_TRUE(client->beginObserving(url("d")));
  application.setBody("/", R"({"/x":2})");  // the root comes last in a pass: its change shows that the pass is over
  ASSERT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  ASSERT_EQ(client->extensionProcess(), served);
  const auto peak = memoryOf(served, "VmHWM");
  std::printf("%s: %.2f times the reply", GetParam().name, static_cast<double>(peak - before) / SIZE);
  EXPECT_LE(peak - before, 3 * SIZE);

  application.setBody("/d/", "{}");
  EXPECT_TRUE(client->waitUntil([&] { return memoryOf(served, "VmRSS") <= before + before / 10; }));
  std::printf(", then %zu KiB of %zu before\n", memoryOf(served, "VmRSS") >> 10, before >> 10);
}

TEST_F(MemoryOfMenus, IsLittleWhateverTheReplyAndIsReleased) {
  constexpr int MENUS = 4;  // as many as are asked for at the same time
  const Shape entries{"", "{", R"("#":true)", ",", "}"};
  SyncApplication application;
  startConfigured();
  const auto askForMenus = [&] {
    int answered = 0;
    for (int i = 0; i < MENUS; ++i) askForMenu("x", [&](const BusReply&) { ++answered; });
    EXPECT_TRUE(client->waitUntil([&] { return answered == MENUS; }));
  };
  askForMenus();
  const int served = client->extensionProcess();
  const auto before = memoryOf(served, "VmRSS");
  const std::string replies[] = {
      entries.make(MEBIBYTE - 20),
      Shape{"", R"({"1":[)", "[]", ",", ""}.make(MEBIBYTE - 20),
      std::string(100 * MEBIBYTE, ' '),
      entries.make(4 * MEBIBYTE),
  };
  for (const auto& reply : replies) {
    application.setBody("mac_populate_menu", reply);
    askForMenus();
    const auto peak = memoryOf(served, "VmHWM");
    std::printf("%zu bytes: %.1f MiB at most\n", reply.size(), static_cast<double>(peak - before) / MEBIBYTE);
    EXPECT_LE(peak - before, 3 * MENUS * MEBIBYTE) << "three times the largest replies that are taken";
  }
  application.setBody("mac_populate_menu", "{}");
  askForMenus();
  EXPECT_EQ(client->extensionProcess(), served);
  std::printf("then %zu KiB of %zu before\n", memoryOf(served, "VmRSS") >> 10, before >> 10);
  EXPECT_LE(memoryOf(served, "VmRSS"), before + before / 10);
}

}  // namespace
}  // namespace vornet::test
