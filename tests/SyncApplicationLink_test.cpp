// The extension process and a sync application that misbehaves: replies of every size and shape, and a server that
// belongs to another user.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "paths/JSON.hpp"
#include "support/BusClient.hpp"
#include "support/ChildProcess.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"
#include "support/Threads.hpp"

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
    if (bus) EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
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

// --- A server that is another user's --------------------------------------------------------------------------------

/// A process of another user that listens where the sync application would, answers every request as that would, and
/// counts the bytes that it was sent.
class Stranger {
 public:
  Stranger() { listening_.pass(); }
  ~Stranger() {
    if (counts_[0] >= 0) ::close(counts_[0]);
    if (counts_[1] >= 0) ::close(counts_[1]);
  }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  /// Ends it. How many bytes it was sent on each connection that it took.
  std::vector<std::size_t> bytes() {
    process_.kill();
    ::close(std::exchange(counts_[1], -1));
    std::vector<std::size_t> counts;
    for (std::size_t count = 0; ::read(counts_[0], &count, sizeof count) == sizeof count;) counts.push_back(count);
    return counts;
  }

 private:
  int work() {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(LoopbackServer::SYNC_APPLICATION_PORT);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) ::_exit(1);
    ::listen(listener, 64);
    listening_.open();
    while (true) {
      const int connection = ::accept(listener, nullptr, nullptr);
      char buffer[4096];
      const auto count = ::recv(connection, buffer, sizeof buffer, 0);
      const auto bytes = count < 0 ? 0 : static_cast<std::size_t>(count);
      if (::write(counts_[1], &bytes, sizeof bytes) != sizeof bytes) return 1;
      const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n[1]";  // which no menu may be
      ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
      ::close(connection);
    }
  }
  static std::array<int, 2> makePipe() {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return ends;
  }

  std::array<int, 2> counts_ = makePipe();
  Gate listening_;
  ChildProcess process_{[this] { return vornet::test::becomeUser(STRANGER) ? work() : 1; }};
};

class AnotherUsersServer : public SyncApplicationLink {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be another user for a while";
  }
};

TEST_F(AnotherUsersServer, LearnsNothingAndIsNotBelieved) {
  Stranger stranger;
  start();
  const int process = (client->property("Version"), client->extensionProcess());
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(waitForLog("[Warning] [RESTPollingManager] poll: Skipping get_icons_for_fodler, ds not connected"));
  std::vector<MenuEntry> entries;
  ASSERT_TRUE(client->menu({url("x")}, entries));
  EXPECT_THAT(entries, SizeIs(5));
  EXPECT_THAT(entries, Each(testing::Field(&MenuEntry::enabled, false)));
  ASSERT_TRUE(client->performAction("share:", {url("x")}));
  EXPECT_THAT(logText(), HasSubstr("Unexpected error occured while fetching context menu: ResourceUnavailable\n"));
  EXPECT_EQ(client->extensionProcess(), process) << "its menu stops nobody";
  EXPECT_THAT(stranger.bytes(), IsEmpty());
  // The port is free: the sync application is found at once when it is there.
  Application application(Application::Replies{{"mac_populate_menu", R"({"1":true})"}});
  ASSERT_TRUE(client->menu({url("x")}, entries));
  EXPECT_TRUE(entries.at(0).enabled);
}

TEST_F(AnotherUsersServer, IsNamedByTheStatusInTheTerminal) {
  Stranger stranger;
  start();
  const auto status = [&](std::vector<std::string> options) {
    const auto output = environment.folder().path() / "status.output";
    std::vector<std::string> arguments{VORNET_VI, "status"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    StartedProgram program(arguments, {"DBUS_SESSION_BUS_ADDRESS=" + bus->address()}, output);
    EXPECT_EQ(program.wait(), 0);
    return readFile(output);
  };
  EXPECT_THAT(status({}), HasSubstr("another user's process (of uid 65534) listens on 127.0.0.1:8806"));
  EXPECT_THAT(status({"--json"}), HasSubstr(R"("outcome":"another user","uid":65534)"));
  EXPECT_THAT(stranger.bytes(), IsEmpty());
}

// --- Memory ---------------------------------------------------------------------------------------------------------

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
  friend void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }
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
    for (int i = 0; i < MENUS; ++i)
      client->call("GetMenu", BusClient::urlArguments({url("x")}), [&](const BusReply&) { ++answered; });
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
