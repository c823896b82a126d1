// The sync application's preferences, or the folder that holds them, change: the built program, started on demand by a
// real message bus.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>

#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class PreferencesWatchTest : public ExtensionTest {
 protected:
  PreferencesWatchTest() {
    fs::create_directories(other);
    writeFile(other + "/x", "");
  }

  void startObserving() {
    startConfigured();
    ASSERT_EQ(client->property("ObservedFolders"), observed());
    first = client->extensionProcess();
  }
  bool waitForObserved(const std::string& property) {
    return client->waitUntil([&] { return client->property("ObservedFolders") == property; });
  }
  /// Waits for the end of the process that the test began with; it must have ended by itself, in good order.
  testing::AssertionResult firstHasEnded() {
    if (!client->waitUntil([&] { return client->extensionProcess() != first; }))
      return testing::AssertionFailure() << "process " << first << " still owns the name";
    if (!waitForEnd(first)) return testing::AssertionFailure() << "process " << first << " still runs";
    return testing::AssertionSuccess();
  }

  const std::string other = environment.folder() / "other";
  const fs::path preferences = container / "VornetKelvane.plist";
  int first = 0;
};

constexpr const char* NOT_CONFIGURED = "Skipping initialization, Kevlane not configured";
constexpr const char* IGNORED = "Ignoring changed preferences";

// --- Preferences that appear ----------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, PreferencesWrittenRightAfterTheFirstLookAreSeen) {
  start();
  for (int round = 0; round < 4; ++round) {
    fs::remove_all(container);
    bool answered = false;
    client->call("RequestBadges", BusClient::urlArguments({}), [&](const BusReply&) { answered = true; });
    while (logged(NOT_CONFIGURED) == 0) client->waitUntil([] { return true; });
    configure();
    ASSERT_TRUE(client->waitUntil([&] { return answered; }));
    ASSERT_TRUE(waitForObserved(observed()));
    const int last = client->extensionProcess();
    ::kill(last, SIGTERM);
    ASSERT_TRUE(waitForEnd(last));
  }
}

TEST_F(PreferencesWatchTest, PreferencesAreSeenWhereNoFileCanBeWatched) {
  // In another user namespace the process may be forbidden to watch files.
  start();
  std::vector<std::string> command{"unshare",
                                   "--user",
                                   "--map-current-user",
                                   "--keep-caps",
                                   "sh",
                                   "-c",
                                   "echo 0 > /proc/sys/user/max_inotify_watches"};
  if (const auto probe = run(command); probe.status != 0) GTEST_SKIP() << "no user namespaces here: " << probe.output;
  command.back() += " && exec " VORNET_EXTENSION;
  const auto extension = launch(command);
  const int last = waitForProcess();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  // Not before the first look of the watch, which would see them without watching.
  for (int calls = 0; calls < 20; ++calls) ASSERT_EQ(process(), last);
  configure();
  EXPECT_TRUE(waitForObserved(observed()));
  EXPECT_EQ(client->extensionProcess(), last);
}

TEST_F(PreferencesWatchTest, ASyncedFolderWithoutAValidPathStopsTheProcessWithItsReason) {
  fs::create_directories(container);
  for (const char* folder : {"", "relative"}) {
    configure(folder);
    const auto lost = run({"sh", "-c", "mkdir gone && cd gone && rmdir ../gone && exec " VORNET_EXTENSION});
    EXPECT_EQ(lost.status, 128 + SIGABRT);
    EXPECT_THAT(lost.output,
                HasSubstr(std::string("Fatal error: a synced folder without a path: \"") + folder + "\"\n"));
  }
}

/// A private system log: the socket of programs that see the folder as /dev.
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
  fs::create_directories(container);
  writeFile(preferences, "<plist version=\"1.0\"><dict><key>other</key><string>x</string></dict></plist>");
  const std::string reason = "Fatal error: the preferences hold no text under root_dir: " + preferences.string();
  EXPECT_EQ(run({VORNET_EXTENSION}).status, 128 + SIGABRT);
  EXPECT_TRUE(logText().ends_with("[Severe] : " + reason + "\n")) << logText();

  // In another mount namespace the process may have another system log.
  const SystemLog log(environment.folder() / "dev");
  const std::string arrange = "touch \"$1/null\" && mount --bind /dev/null \"$1/null\" && mount --rbind \"$1\" /dev";
  const auto runMoved = [&](const std::string& then) {
    return run({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", arrange + then, "sh",
                environment.folder() / "dev"});
  };
  if (const auto probe = runMoved(""); probe.status != 0) GTEST_SKIP() << "no namespaces here: " << probe.output;
  EXPECT_EQ(runMoved(" && exec " VORNET_EXTENSION).status, 128 + SIGABRT);
  EXPECT_THAT(log.text(), HasSubstr("VornetVIExt: " + reason));
}

// --- Preferences that change ----------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AnotherSyncedFolderEndsTheProcessAndTheNextCallStartsItWithThatFolder) {
  startObserving();
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
  EXPECT_THAT(client->requestBadges({"file://" + other + "/x"}).texts(), testing::ElementsAre(""));
  EXPECT_TRUE(client->beginObserving("file://" + other));
  EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Fatal error")));
}

TEST_F(PreferencesWatchTest, PreferencesRewrittenInPlaceAreSeenToo) {
  startObserving();
  writePreferences(preferences, other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
}

TEST_F(PreferencesWatchTest, ACallInFlightIsAnsweredWhenTheSyncedFolderChanges) {
  SyncApplication application;
  application.stall("mac_populate_menu");  // until the limit of 3 s
  startObserving();
  std::optional<BusReply> answer;
  askForMenu("x", [&answer](const BusReply& given) { answer = given; });
  ASSERT_TRUE(application.waitForRequests(1));
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  ASSERT_TRUE(client->waitUntil([&] { return answer.has_value(); }));
  EXPECT_EQ(answer->error, "");
}

TEST_F(PreferencesWatchTest, PreferencesThatNameTheSameFolderOrNoneChangeNothing) {
  startObserving();
  configure();
  configure(root + "/");
  writePreferences(preferences, root);
  writeFile(preferences, "<?xml version=\"1.0\"?><plist><dict><key>root_dir</key><string>" + root);  // half-written
  ASSERT_TRUE(waitForLog(IGNORED)) << logText();
  EXPECT_EQ(client->extensionProcess(), first);
  fs::remove(preferences);
  writeFile(preferences, "<plist version=\"1.0\"><dict><key>other</key><string>x</string></dict></plist>");
  writeFile(preferences, "<plist version=\"1.0\"><dict><key>root_dir</key><integer>1</integer></dict></plist>");
  configure();
  // Only another folder ends the process, which shows that all of the above was read.
  EXPECT_EQ(client->property("ObservedFolders"), observed());
  EXPECT_EQ(client->extensionProcess(), first);
  configure(other);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed(other));
}

// --- The container --------------------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AContainerRemovedAndMadeAgainIsNoticedAndTheLogIsWrittenThere) {
  startObserving();
  fs::remove_all(container);
  fs::create_directories(container);
  configure();
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), observed());
  EXPECT_THAT(logText(), HasSubstr("Initialized Kevlane Finder plugin for path " + root));
}

TEST_F(PreferencesWatchTest, AContainerReplacedBeforeThereArePreferencesIsNoticedToo) {
  fs::create_directories(container);
  start();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  first = client->extensionProcess();
  fs::rename(container, environment.folder() / "old");
  fs::create_directories(container);
  ASSERT_TRUE(firstHasEnded());
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  configure();
  EXPECT_TRUE(waitForObserved(observed()));
  EXPECT_TRUE(waitForLog("Finder plugin enabled")) << logText();
}

TEST_F(PreferencesWatchTest, ARemovedContainerIsNotMadeAgainByLookUps) {
  startObserving();
  fs::remove_all(container);
  EXPECT_EQ(badge("x"), "");
  EXPECT_TRUE(client->beginObserving(url()));
  EXPECT_FALSE(fs::exists(container));
  EXPECT_EQ(client->extensionProcess(), first);
}

}  // namespace
}  // namespace vornet::test
