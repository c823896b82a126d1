// The sync application's preferences, or the folder that holds them, change: the built program, started on demand by a
// real message bus.
#include <gio/gunixsocketaddress.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <optional>

#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::Not;

class PreferencesWatchTest : public ExtensionTest {
 protected:
  PreferencesWatchTest() {
    fs::create_directories(other);
    writeFile(other + "/x", "");
  }

  /// Starts the extension, which observes `property`.
  void startExtension(const std::string& property) {
    start();
    ASSERT_EQ(client->property("ObservedFolders"), property);
    first = client->extensionProcess();
  }
  void startConfiguredExtension() {
    configure();
    startExtension(observed());
  }
  bool waitForObserved(const std::string& property) {
    return client->waitUntil([&] { return client->property("ObservedFolders") == property; });
  }
  /// Waits for the end of the process that the test began with, by itself and in good order. The next one observes
  /// `property`.
  void expectSuccessor(const std::string& property) {
    EXPECT_TRUE(client->waitUntil([&] { return client->extensionProcess() != first; })) << "still owns the name";
    EXPECT_TRUE(waitForEnd(first)) << "still runs";
    EXPECT_EQ(client->property("ObservedFolders"), property);
    first = client->extensionProcess();
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
  const auto command = [](const std::string& then) {
    const auto forbid = "echo 0 > /proc/sys/user/max_inotify_watches" + then;
    return std::vector<std::string>{"unshare", "--user", "--map-current-user", "--keep-caps", "sh", "-c", forbid};
  };
  if (const auto probe = run(command("")); probe.status != 0) GTEST_SKIP() << "no namespaces here: " << probe.output;
  const auto extension = launch(command(" && exec " VORNET_EXTENSION));
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
    const auto reason = std::string("Fatal error: a synced folder without a path: \"") + folder + "\"\n";
    EXPECT_THAT(run({"sh", "-c", "mkdir gone && cd gone && rmdir ../gone && exec " VORNET_EXTENSION}),
                FieldsAre(128 + SIGABRT, HasSubstr(reason)));
  }
}

/// The socket of a private system log, that of programs that see the folder as /dev.
GObjectPtr<GSocket> systemLogOf(const fs::path& dev) {
  fs::create_directories(dev);
  const GObjectPtr<GSocketAddress> address(g_unix_socket_address_new((dev / "log").c_str()));
  GObjectPtr<GSocket> log(
      g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_DEFAULT, nullptr));
  EXPECT_TRUE(g_socket_bind(log.get(), address.get(), TRUE, nullptr));
  g_socket_set_blocking(log.get(), FALSE);
  return log;
}

TEST_F(PreferencesWatchTest, PreferencesWithoutSyncedFolderStopTheProcessWhichLeavesTheReasonInBothLogs) {
  fs::create_directories(container);
  writeFile(preferences, "<plist version=\"1.0\"><dict><key>other</key><string>x</string></dict></plist>");
  const std::string reason = "Fatal error: the preferences hold no text under root_dir: " + preferences.string();
  EXPECT_EQ(run({VORNET_EXTENSION}).status, 128 + SIGABRT);
  EXPECT_TRUE(logText().ends_with("[Severe] : " + reason + "\n")) << logText();

  // In another mount namespace the process may have another system log.
  const auto log = systemLogOf(environment.folder() / "dev");
  const std::string arrange = "touch \"$1/null\" && mount --bind /dev/null \"$1/null\" && mount --rbind \"$1\" /dev";
  const auto runMoved = [&](const std::string& then) {
    return run({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c", arrange + then, "sh",
                environment.folder() / "dev"});
  };
  if (const auto probe = runMoved(""); probe.status != 0) GTEST_SKIP() << "no namespaces here: " << probe.output;
  EXPECT_EQ(runMoved(" && exec " VORNET_EXTENSION).status, 128 + SIGABRT);
  std::string messages;
  char message[4096];
  for (gssize size; (size = g_socket_receive(log.get(), message, sizeof message, nullptr, nullptr)) > 0;)
    messages.append(message, static_cast<std::size_t>(size)) += '\n';
  EXPECT_THAT(messages, HasSubstr("VornetVIExt: " + reason));
}

// --- Preferences that change ----------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AnotherSyncedFolderEndsTheProcessAndTheNextCallStartsItWithThatFolder) {
  startConfiguredExtension();
  configure(other);
  expectSuccessor(observed(other));
  EXPECT_THAT(client->requestBadges({"file://" + other + "/x"}).texts(), testing::ElementsAre(""));
  EXPECT_TRUE(client->beginObserving("file://" + other));
  EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Fatal error")));
}

TEST_F(PreferencesWatchTest, PreferencesRewrittenInPlaceAreSeenToo) {
  startConfiguredExtension();
  writePreferences(preferences, other);
  expectSuccessor(observed(other));
}

TEST_F(PreferencesWatchTest, ACallInFlightIsAnsweredWhenTheSyncedFolderChanges) {
  SyncApplication application;
  application.stall("mac_populate_menu");  // until the limit of 3 s
  startConfiguredExtension();
  std::optional<BusReply> answer;
  askForMenu("x", [&answer](const BusReply& given) { answer = given; });
  ASSERT_TRUE(application.waitForRequests(1));
  configure(other);
  expectSuccessor(observed(other));
  ASSERT_TRUE(client->waitUntil([&] { return answer.has_value(); }));
  EXPECT_EQ(answer->error, "");
}

TEST_F(PreferencesWatchTest, PreferencesThatNameTheSameFolderOrNoneChangeNothing) {
  startConfiguredExtension();
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
  expectSuccessor(observed(other));
}

// --- The container --------------------------------------------------------------------------------------------------

TEST_F(PreferencesWatchTest, AContainerRemovedAndMadeAgainIsNoticedAndTheLogIsWrittenThere) {
  startConfiguredExtension();
  fs::remove_all(container);
  fs::create_directories(container);
  configure();
  expectSuccessor(observed());
  EXPECT_THAT(logText(), HasSubstr("Initialized Kevlane Finder plugin for path " + root));
}

TEST_F(PreferencesWatchTest, AContainerReplacedBeforeThereArePreferencesIsNoticedToo) {
  fs::create_directories(container);
  startExtension("[]");
  fs::rename(container, environment.folder() / "old");
  fs::create_directories(container);
  expectSuccessor("[]");
  configure();
  EXPECT_TRUE(waitForObserved(observed()));
  EXPECT_TRUE(waitForLog("Finder plugin enabled")) << logText();
}

TEST_F(PreferencesWatchTest, ARemovedContainerIsNotMadeAgainByLookUps) {
  startConfiguredExtension();
  fs::remove_all(container);
  EXPECT_EQ(badge("x"), "");
  EXPECT_TRUE(client->beginObserving(url()));
  EXPECT_FALSE(fs::exists(container));
  EXPECT_EQ(client->extensionProcess(), first);
}

}  // namespace
}  // namespace vornet::test
