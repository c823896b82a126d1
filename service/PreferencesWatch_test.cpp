// What the extension process does when the sync application's preferences, or the folder that holds them, change: the
// built program, started on demand by a real message bus.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>

#include "support/BusClient.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using vornet::test::BusClient;
using vornet::test::BusReply;
using vornet::test::Environment;
using vornet::test::LoopbackServer;
using vornet::test::PrivateBus;
using vornet::test::readFile;
using vornet::test::StartedProgram;
using vornet::test::WireReply;
using vornet::test::WireRequest;
using vornet::test::writeFile;

namespace fs = std::filesystem;

class PreferencesWatchTest : public testing::Test {
 protected:
  PreferencesWatchTest() {
    for (const auto& folder : {root, other}) {
      fs::create_directories(folder);
      writeFile(folder + "/x", "");
    }
  }
  ~PreferencesWatchTest() override {
    const int process = bus ? BusClient(bus->address()).extensionProcess() : 0;
    if (bus) bus->stop();
    vornet::test::waitForEnd(process);
    if (bus) EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
    if (HasFailure() && bus) std::fputs(readFile(bus->output()).c_str(), stderr);
  }

  // Looking for the container here does not make it.
  fs::path container() const { return fs::path(environment.folder() / "containers/com.vornet.KelvaneSync"); }
  fs::path preferences() const { return container() / "VornetKelvane.plist"; }
  /// The preferences with `folder` as the synced folder, written as the sync application is to write them.
  void configure(const std::string& folder) const {
    vornet::test::writePreferences(container() / "new", folder);
    fs::rename(container() / "new", preferences());
  }
  void start() {
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }
  void startConfigured() {
    environment.container();
    configure(root);
    start();
    ASSERT_EQ(client->property("ObservedFolders"), observed(root));
    first = client->extensionProcess();
    ASSERT_NE(first, 0);
  }
  /// Waits for the end of the process that the test began with; it must have ended by itself, in good order.
  testing::AssertionResult firstHasEnded() {
    if (!client->waitUntil([&] { return client->extensionProcess() != first; }))
      return testing::AssertionFailure() << "process " << first << " still owns the name";
    if (!vornet::test::waitForEnd(first)) return testing::AssertionFailure() << "process " << first << " still runs";
    return testing::AssertionSuccess();
  }
  std::string observed(const std::string& folder) const { return "['file://" + folder + "/']"; }
  std::string logText() const { return readFile(container() / "log/vi.log"); }

  bool waitForLog(const std::string& text) {
    return client->waitUntil([&] { return logText().find(text) != std::string::npos; });
  }

  Environment environment;
  const std::string root = environment.folder() / "root";
  const std::string other = environment.folder() / "other";
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
  int first = 0;
};

constexpr const char* NOT_CONFIGURED = "Skipping initialization, Kevlane not configured";
constexpr const char* IGNORED = "Ignoring changed preferences";

// --- That appear ----------------------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, PreferencesWrittenRightAfterTheFirstLookAreSeen) {
  start();
  for (int round = 0; round < 4; ++round) {
    fs::remove_all(container());
    BusReply reply;
    bool answered = false;
    client->call("RequestBadges", BusClient::urlArguments({}), [&](const BusReply& given) {
      reply = given;
      answered = true;
    });
    while (logText().find(NOT_CONFIGURED) == std::string::npos) client->waitUntil([] { return true; });
    configure(root);
    ASSERT_TRUE(client->waitUntil([&] { return answered; }));
    ASSERT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == observed(root); }));
    const int process = client->extensionProcess();
    ::kill(process, SIGTERM);
    ASSERT_TRUE(vornet::test::waitForEnd(process));
  }
}

TEST_F(PreferencesWatchTest, PreferencesAreSeenWhereNoFileCanBeWatched) {
  // In a user namespace of its own the process may be forbidden to watch files.
  start();
  const std::string arrange = "echo 0 > /proc/sys/user/max_inotify_watches && exec " VORNET_EXTENSION;
  StartedProgram probe({"unshare", "--user", "--map-current-user", "--keep-caps", "sh", "-c",
                        "echo 0 > /proc/sys/user/max_inotify_watches"},
                       {}, environment.folder() / "probe");
  if (probe.wait() != 0) GTEST_SKIP() << "no user namespaces here: " << readFile(environment.folder() / "probe");
  StartedProgram extension({"unshare", "--user", "--map-current-user", "--keep-caps", "sh", "-c", arrange},
                           {"DBUS_SESSION_BUS_ADDRESS=" + bus->address()}, environment.folder() / "extension");
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() != 0; }));
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  // Not before the first look of the watch, which would see them without watching.
  const int process = client->extensionProcess();
  client->forgetChanges();
  ASSERT_TRUE(
      client->waitUntil([&, calls = 0]() mutable { return client->property("Version") != "" && ++calls > 20; }));
  configure(root);
  EXPECT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == observed(root); }));
  EXPECT_EQ(client->extensionProcess(), process);
}

TEST_F(PreferencesWatchTest, ASyncedFolderThatNoPathCanBeMadeOfStopsTheProcessWithItsReason) {
  environment.container();
  for (const char* folder : {"", "relative"}) {
    configure(folder);
    StartedProgram lost({"sh", "-c", "mkdir gone && cd gone && rmdir ../gone && exec " VORNET_EXTENSION}, {},
                        environment.folder() / "lost");
    EXPECT_EQ(lost.wait(), 128 + SIGABRT);
    EXPECT_THAT(readFile(environment.folder() / "lost"),
                HasSubstr(std::string("Fatal error: a synced folder without a path: \"") + folder + "\"\n"));
  }
}

/// A system log of a test's own: the socket that programs write to which see the folder as /dev.
class SystemLog {
 public:
  explicit SystemLog(const fs::path& dev) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    fs::create_directories(dev);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (dev / "log").string().copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ADD_FAILURE() << "no socket";
  }
  ~SystemLog() { ::close(socket_); }
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

  /// All messages so far.
  std::string text() const {
    std::string all;
    char message[4096];
    for (ssize_t size; (size = ::recv(socket_, message, sizeof message, 0)) >= 0;)
      all.append(message, static_cast<std::size_t>(size)) += '\n';
    return all;
  }

 private:
  const int socket_;
};

TEST_F(PreferencesWatchTest, PreferencesWithoutSyncedFolderStopTheProcessWhichLeavesTheReasonInBothLogs) {
  environment.container();
  writeFile(preferences(), "<plist version=\"1.0\"><dict><key>other</key><string>x</string></dict></plist>");
  const std::string reason = "Fatal error: the preferences hold no text under root_dir: " + preferences().string();
  StartedProgram plain({VORNET_EXTENSION}, {}, environment.folder() / "plain");
  EXPECT_EQ(plain.wait(), 128 + SIGABRT);
  EXPECT_TRUE(logText().ends_with("[Severe] : " + reason + "\n")) << logText();

  // In a mount namespace of its own the process may have another system log.
  const SystemLog log(environment.folder() / "dev");
  const std::string arrange = "touch \"$1/null\" && mount --bind /dev/null \"$1/null\" && mount --rbind \"$1\" /dev";
  const auto run = [&](const std::string& then, const char* output) {
    return StartedProgram({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", arrange + then, "sh",
                           environment.folder() / "dev"},
                          {}, environment.folder() / output)
        .wait();
  };
  if (run("", "probe") != 0) GTEST_SKIP() << "no namespaces here: " << readFile(environment.folder() / "probe");
  EXPECT_EQ(run(" && exec " VORNET_EXTENSION, "moved"), 128 + SIGABRT);
  EXPECT_THAT(log.text(), HasSubstr("VornetVIExt: " + reason));
}

// --- That change ----------------------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AnotherSyncedFolderEndsTheProcessAndTheNextCallStartsItWithThatFolder) {
  startConfigured();
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
  EXPECT_THAT(client->requestBadges({"file://" + other + "/x"}).texts(), ElementsAre(""));
  EXPECT_TRUE(client->beginObserving("file://" + other));
  EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Fatal error")));
}

TEST_F(PreferencesWatchTest, PreferencesRewrittenInPlaceAreSeenToo) {
  startConfigured();
  vornet::test::writePreferences(preferences(), other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
}

TEST_F(PreferencesWatchTest, ACallUnderWayIsAnsweredWhenTheSyncedFolderChanges) {
  LoopbackServer application(
      [](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });  // until its limit of 3 s
  startConfigured();
  std::optional<BusReply> answer;
  client->call("GetMenu", BusClient::urlArguments({"file://" + root + "/x"}),
               [&answer](const BusReply& given) { answer = given; });
  ASSERT_TRUE(application.waitForRequests(1));
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  ASSERT_TRUE(client->waitUntil([&] { return answer.has_value(); }));
  EXPECT_EQ(answer->error, "");
}

TEST_F(PreferencesWatchTest, PreferencesThatNameTheSameFolderOrNoneChangeNothing) {
  startConfigured();
  configure(root);
  configure(root + "/");
  vornet::test::writePreferences(preferences(), root);
  writeFile(preferences(), "<?xml version=\"1.0\"?><plist><dict><key>root_dir</key><string>" + root);  // half-written
  ASSERT_TRUE(waitForLog(IGNORED)) << logText();
  EXPECT_EQ(client->extensionProcess(), first);
  fs::remove(preferences());
  writeFile(preferences(), "<plist version=\"1.0\"><dict><key>other</key><string>x</string></dict></plist>");
  writeFile(preferences(), "<plist version=\"1.0\"><dict><key>root_dir</key><integer>1</integer></dict></plist>");
  configure(root);
  // What follows shows that all of it was looked at: the process ends for nothing but another folder.
  EXPECT_EQ(client->property("ObservedFolders"), observed(root));
  EXPECT_EQ(client->extensionProcess(), first);
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
}

// --- The container --------------------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AContainerRemovedAndMadeAnewIsNoticedAndTheLogIsWrittenThere) {
  startConfigured();
  fs::remove_all(container());
  environment.container();
  configure(root);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(root));
  EXPECT_THAT(logText(), HasSubstr("Initialized Kevlane Finder plugin for path " + root));
}

TEST_F(PreferencesWatchTest, AContainerReplacedBeforeThereArePreferencesIsNoticedToo) {
  environment.container();
  start();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  first = client->extensionProcess();
  fs::rename(container(), environment.folder() / "old");
  environment.container();
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  configure(root);
  EXPECT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == observed(root); }));
  EXPECT_TRUE(waitForLog("Finder plugin enabled")) << logText();
}

TEST_F(PreferencesWatchTest, ARemovedContainerIsNotMadeAgainByLookUps) {
  startConfigured();
  fs::remove_all(container());
  EXPECT_THAT(client->requestBadges({"file://" + root + "/x"}).texts(), ElementsAre(""));
  EXPECT_TRUE(client->beginObserving("file://" + root));
  EXPECT_FALSE(fs::exists(container()));
  EXPECT_EQ(client->extensionProcess(), first);
}

}  // namespace
