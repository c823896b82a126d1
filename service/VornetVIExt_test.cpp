// The extension process, started on demand by a real message bus: its start and its end.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <ctime>
#include <regex>

#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::AllOf;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::Not;

using ExtensionProcess = ExtensionTest;

TEST_F(ExtensionProcess, IsStartedByTheFirstCallAndShowsItsProperties) {
  startConfigured();
  EXPECT_EQ(client->extensionProcess(), 0);
  EXPECT_EQ(client->property("ObservedFolders"), observed());
  EXPECT_NE(client->extensionProcess(), 0);
  EXPECT_EQ(client->property("Badges"),
            "[('SKIPPED', 'Not synced', 'error'), ('PENDING', 'Sync in progress', 'sync'), "
            "('SYNCED', 'Synced', 'checkmark')]");
  EXPECT_EQ(client->property("Version"), "'" VORNET_VERSION "'");
  EXPECT_EQ(client->property("LogFile"), "'" + environment.logFile().string() + "'");
}

TEST_F(ExtensionProcess, SaysSinceWhenTheSyncApplicationIsSilentAsLongAsItAsks) {
  const auto silentSince = [this] { return client->property("SyncApplicationSilentSince"); };
  startConfigured();
  EXPECT_EQ(silentSince(), "-1");
  const auto before = std::time(nullptr);
  menu({"x"});
  ASSERT_TRUE(client->waitUntil([&] { return silentSince() != "-1"; }));
  const auto since = std::stoll(silentSince());
  EXPECT_GE(since, before);
  EXPECT_LE(since, std::time(nullptr));
  ASSERT_TRUE(client->waitUntil([&] { return silentSince() == "-1"; })) << "no client asks";
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(client->waitUntil([&] { return silentSince() != "-1"; }));
  EXPECT_EQ(std::stoll(silentSince()), since) << "it has not answered since";
  SyncApplication application;
  EXPECT_TRUE(client->waitUntil([&] { return silentSince() == "0"; }));
}

TEST_F(ExtensionProcess, TheLogHasTheStartLineByLine) {
  startConfigured();
  const auto id = std::to_string(process());
  const std::string date = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[Info\] )";
  std::string expected;
  for (const std::string& line :
       {": VornetVIExt Version: " VORNET_VERSION " Build: 1 PID: " + id, ": XCGLogger Version: 1.8.1 - LogLevel: Info"s,
        R"(\[Logging\] setupLogger: Logger initialized on level: INFO)"s,
        R"(\[RESTPollingManager\] start_listener: Starting REST status polling)"s,
        R"(\[FinderSync\] init: Started new status manager)"s,
        R"(\[RESTPollingManager\] enableVI: Initialized Kevlane Finder plugin for path )" + root,
        R"(\[RESTPollingManager\] setupLocalRoot: Finder plugin enabled)"s}) {
    expected += date + line + "\n";
  }
  EXPECT_TRUE(std::regex_match(logText(), std::regex(expected))) << logText();
}

TEST_F(ExtensionProcess, LooksForNoModuleForRemoteFoldersAndLoadsNone) {
  const ScopedVariable list("GIO_USE_VFS", "help");  // has GIO print the modules that it looks for
  startConfigured();
  EXPECT_THAT(readFile("/proc/" + std::to_string(process()) + "/maps"),
              AllOf(HasSubstr("/libgio"), Not(HasSubstr("gvfs"))));
  EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("GIO_USE_VFS")));
}

TEST_F(ExtensionProcess, ReadsNoSettingsOfTheLibrariesForTLS) {
  const std::string pipe = environment.folder() / "pipe";  // of which nobody has the other end: to open it is to wait
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const ScopedVariable openSSL("OPENSSL_CONF", pipe);
  const ScopedVariable gnuTLS("GNUTLS_SYSTEM_PRIORITY_FILE", pipe);
  SyncApplication application;
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url()));
  EXPECT_TRUE(application.waitForRequests(1));
}

TEST_F(ExtensionProcess, AskedToEndItMakesRoomForTheNextOneBeforeItHasEnded) {
  SyncApplication application;
  application.stall("mac_populate_menu");
  startConfigured();
  const int first = process();
  bool answered = false;
  askForMenu("x", [&answered](const BusReply&) { answered = true; });
  ASSERT_TRUE(application.waitForRequests(1));
  ::kill(first, SIGTERM);  // it has to wait for its request now
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() != first; }));
  EXPECT_NE(process(), first);
  EXPECT_TRUE(client->waitUntil([&] { return answered; }));
  EXPECT_TRUE(waitForEnd(first));
}

TEST_F(ExtensionProcess, WithoutABusItSaysSoAndFails) {
  configure();
  EXPECT_THAT(run({VORNET_EXTENSION}, {"DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"}),
              FieldsAre(1, HasSubstr("no session bus: ")));
}

TEST_F(ExtensionProcess, WithoutAGroupContainerItStopsAtOnce) {
  EXPECT_THAT(run({VORNET_EXTENSION}, {"VORNET_GROUP_CONTAINERS=/dev/null/none"}),
              FieldsAre(128 + SIGABRT, HasSubstr("Fatal error: no group container")));
}

TEST_F(ExtensionProcess, SaysItsVersionAndRefusesOtherArguments) {
  EXPECT_THAT(run({VORNET_EXTENSION, "--version"}), FieldsAre(0, "VornetVIExt " VORNET_VERSION "\n"));
  EXPECT_EQ(run({VORNET_EXTENSION, "--other"}).status, 2);
}

TEST_F(ExtensionProcess, StartedBeforeTheSyncApplicationIsConfiguredItFindsTheFolderWhenThePreferencesAppear) {
  start();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  EXPECT_EQ(client->beginObserving(url()).error, "OutsideObservedFolders");
  EXPECT_EQ(client->performAction("share:", {url("x")}).error, "OutsideObservedFolders");
  EXPECT_EQ(badge("x"), "");
  EXPECT_EQ(logged("[RESTPollingManager] setupLocalRoot: Skipping initialization, Kevlane not configured\n"), 1u);

  configure();
  EXPECT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == observed(); }));
  EXPECT_TRUE(client->beginObserving(url()));
}

TEST_F(ExtensionProcess, InstalledUnderAPrefixItIsStartedFromThereAndFindsItsImages) {
  const auto prefix = environment.folder().path() / "prefix";
  // Installing writes into the build tree; the tests of script/install take the same lock.
  const auto install = run(
      {"flock", VORNET_BUILD "/install.lock", VORNET_CMAKE, "--install", VORNET_BUILD, "--prefix", prefix.string()});
  ASSERT_EQ(install.status, 0) << install.output;
  for (const char* file : {"bin/vornet-vi", "share/icons/hicolor/16x16/emblems/emblem-vornet-synced.png",
                           "share/icons/hicolor/scalable/emblems/emblem-vornet-pending.svg"}) {
    EXPECT_TRUE(fs::exists(prefix / file)) << file;
  }
  configure();
  start(prefix / "share/dbus-1/services");
  EXPECT_EQ(client->property("ObservedFolders"), observed()) << "without its images it would stop";
  const auto program = fs::read_symlink("/proc/" + std::to_string(process()) + "/exe");
  EXPECT_EQ(program, prefix / "libexec/VornetVIExt");
}

}  // namespace
}  // namespace vornet::test
