// The extension process and a sync application that misbehaves: replies of every size and shape, and a server that
// belongs to another user.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "paths/JSON.hpp"
#include "support/BusClient.hpp"
#include "support/ChildProcess.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using vornet::test::BusClient;
using vornet::test::BusReply;
using vornet::test::ChildProcess;
using vornet::test::Environment;
using vornet::test::Gate;
using vornet::test::LoopbackServer;
using vornet::test::MenuEntry;
using vornet::test::PrivateBus;
using vornet::test::readFile;
using vornet::test::StartedProgram;
using vornet::test::WireReply;
using vornet::test::WireRequest;

namespace fs = std::filesystem;

constexpr std::size_t MEBIBYTE = std::size_t{1} << 20;
constexpr uid_t STRANGER = 65534;

class SyncApplicationLink : public testing::Test {
 protected:
  SyncApplicationLink() {
    for (const char* name : {"a", "b", "c"}) fs::create_directories(root + "/" + name);
    vornet::test::writeFile(root + "/x", "");
    vornet::test::writePreferences(environment.container() / "VornetKelvane.plist", root);
  }
  ~SyncApplicationLink() override {
    const int process = bus ? BusClient(bus->address()).extensionProcess() : 0;
    if (bus) bus->stop();
    vornet::test::waitForEnd(process);
    if (bus) {
      EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
    }
    if (HasFailure() && bus) std::fputs(readFile(bus->output()).c_str(), stderr);
  }

  void start() {
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }
  std::string url(const std::string& name) const { return "file://" + root + (name.empty() ? "" : "/" + name); }
  std::string logText() const { return readFile(environment.logFile()); }
  bool waitForLog(const std::string& message) {
    return client->waitUntil([&] { return logText().find(message + "\n") != std::string::npos; });
  }
  std::string badge(const std::string& name) { return client->requestBadges({url(name)}).texts().at(0); }

  Environment environment;
  const std::string root = environment.folder() / "root";
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
};

// --- Replies of every shape -----------------------------------------------------------------------------------------

/// A sync application whose reply for each folder, and to each other command, can be set.
class Application {
 public:
  using Replies = std::map<std::string, std::string>;
  explicit Application(Replies replies) : replies_(std::move(replies)) {}

  /// `of`: a folder's name in requests ("/a/"), or a command.
  void set(const std::string& of, std::string body) {
    const std::lock_guard guard(lock_);
    replies_[of] = std::move(body);
  }
  LoopbackServer& server() { return server_; }

 private:
  WireReply answer(const WireRequest& request) {
    std::string of = request.target.substr(1);
    if (of == "get_icons_for_folder") of = std::string(vornet::fromJSON(request.body).at("dir_name").as_string());
    const std::lock_guard guard(lock_);
    const auto found = replies_.find(of);
    return found == replies_.end() ? WireReply{.body = "{}"} : WireReply{.body = found->second};
  }

  std::mutex lock_;
  std::map<std::string, std::string> replies_;
  LoopbackServer server_{[this](const WireRequest& request) { return answer(request); }};
};

TEST_F(SyncApplicationLink, AKeyWithANulIsIgnoredAndTheOthersCount) {
  Application application(Application::Replies{{"/", R"({"/a\u0000b":2,"\u0000":2,"/x":1,"/x\u0000":2})"}});
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->waitUntil([&] { return badge("x") == "PENDING"; }));
  application.set("/", R"({"/a\u0000b":1,"\u0000":1,"/x\u0000":1,"/x":2})");
  ASSERT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_THAT(client->changes(), Not(testing::Contains(testing::Key(HasSubstr("%00")))));
}

/// What the kernel says of a process's memory, in bytes.
std::size_t memoryOf(int process, const std::string& figure) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    std::size_t kibibytes = 0;
    if (word == figure + ":" && status >> kibibytes) return kibibytes << 10;
  }
  return 0;
}

/// About `size` bytes of JSON: `member(i)` again and again between `open` and `close`.
std::string document(std::size_t size, const std::string& open, const std::string& close,
                     const std::function<std::string(int)>& member) {
  std::string text = open;
  for (int i = 0; text.size() < size; ++i) text.append(i > 0 ? "," : "").append(member(i));
  return text += close;
}

struct Shape {
  const char* name;
  std::string (*make)(std::size_t size);
};

std::string number(int i) {
  return std::to_string(1'000'000 + i);
}

const Shape SHAPES[] = {
    {"no integers",
     [](std::size_t size) { return document(size, "{", "}", [](int i) { return "\"/a/" + number(i) + "\":\"x\""; }); }},
    {"short names",
     [](std::size_t size) { return document(size, "{", "}", [](int i) { return "\"/a/" + number(i) + "\":2"; }); }},
    {"names of common length",
     [](std::size_t size) {
       return document(size, "{", "}", [](int i) { return "\"/a/A file of May " + number(i) + ".txt\": 2"; });
     }},
    {"names of other folders",
     [](std::size_t size) { return document(size, "{", "}", [](int i) { return "\"" + number(i) + "\":2"; }); }},
    {"equal names", [](std::size_t size) { return document(size, "{", "}", [](int) { return "\"/a/x\":2"; }); }},
    {"one long name", [](std::size_t size) { return "{\"/a/" + std::string(size, 'x') + "\":1}"; }},
    {"one long name with escapes",
     [](std::size_t size) {
       std::string text = "{\"/a/";
       while (text.size() < size) text += "\\u0041";
       return text + "\":1}";
     }},
    {"one long text", [](std::size_t size) { return "{\"/a/x\":\"" + std::string(size, 'x') + "\"}"; }},
    {"blanks", [](std::size_t size) { return std::string(size, ' ') + "{}"; }},
    {"lists",
     [](std::size_t size) {
       return document(size, "[", "]", [](int) { return std::string(500, '[') + std::string(500, ']'); });
     }},
    {"empty objects", [](std::size_t size) { return document(size, "[", "]", [](int) { return std::string("{}"); }); }},
};

class MemoryOfTheLink : public SyncApplicationLink, public testing::WithParamInterface<Shape> {
 protected:
  void SetUp() override {
    if (*VORNET_SANITIZED) GTEST_SKIP() << "a sanitizer has its own memory";
  }
};

TEST_P(MemoryOfTheLink, IsThreeTimesAReplyAtMostAndComesBack) {
  constexpr std::size_t SIZE = 60 * MEBIBYTE;
  Application application(Application::Replies{{"/", R"({"/x":1})"}, {"/a/", GetParam().make(SIZE)}});
  start();
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->waitUntil([&] { return badge("x") == "PENDING"; }));
  const int process = client->extensionProcess();
  const auto before = memoryOf(process, "VmRSS");

  ASSERT_TRUE(client->beginObserving(url("a")));
  application.set("/", R"({"/x":2})");  // the root comes last in a pass: its change says that the pass is over
  ASSERT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  ASSERT_EQ(client->extensionProcess(), process);
  const auto peak = memoryOf(process, "VmHWM");
  std::printf("%s: %.2f times the reply", GetParam().name, static_cast<double>(peak - before) / SIZE);
  EXPECT_LE(peak - before, 3 * SIZE);

  application.set("/a/", "{}");
  EXPECT_TRUE(client->waitUntil([&] { return memoryOf(process, "VmRSS") <= before + before / 10; }));
  std::printf(", then %zu KiB of %zu before\n", memoryOf(process, "VmRSS") >> 10, before >> 10);
}

TEST_F(SyncApplicationLink, MenusTakeLittleMemoryWhateverTheReply) {
  if (*VORNET_SANITIZED) GTEST_SKIP() << "a sanitizer has its own memory";
  constexpr int MENUS = 4;  // as many as are asked for at the same time
  const auto entry = [](int i) { return "\"" + number(i) + "\":true"; };
  Application application(Application::Replies{});
  start();
  const auto askForMenus = [&] {
    int answered = 0;
    for (int i = 0; i < MENUS; ++i) {
      client->call("GetMenu", BusClient::urlArguments({url("x")}), [&](const BusReply&) { ++answered; });
    }
    EXPECT_TRUE(client->waitUntil([&] { return answered == MENUS; }));
  };
  askForMenus();
  const int process = client->extensionProcess();
  const auto before = memoryOf(process, "VmRSS");
  const std::string replies[] = {
      document(MEBIBYTE - 20, "{", "}", entry),
      document(MEBIBYTE - 20, "{\"1\":[", "", [](int) { return std::string("[]"); }),
      std::string(100 * MEBIBYTE, ' '),
      document(4 * MEBIBYTE, "{", "}", entry),
  };
  for (const auto& reply : replies) {
    application.set("mac_populate_menu", reply);
    askForMenus();
    const auto peak = memoryOf(process, "VmHWM");
    std::printf("%zu bytes: %.1f MiB at most\n", reply.size(), static_cast<double>(peak - before) / MEBIBYTE);
    EXPECT_LE(peak - before, 3 * MENUS * MEBIBYTE) << "three times the largest replies that are taken";
  }
  application.set("mac_populate_menu", "{}");
  askForMenus();
  EXPECT_EQ(client->extensionProcess(), process);
  std::printf("then %zu KiB of %zu before\n", memoryOf(process, "VmRSS") >> 10, before >> 10);
  EXPECT_LE(memoryOf(process, "VmRSS"), before + before / 10);
}

std::string nameOf(const testing::TestParamInfo<Shape>& shape) {
  std::string name = shape.param.name;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Shapes, MemoryOfTheLink, testing::ValuesIn(SHAPES), nameOf);

}  // namespace
