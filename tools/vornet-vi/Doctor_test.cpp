// "vornet-vi status" as a doctor: the built programs on a private bus, with one thing wrong at a time.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <filesystem>
#include <optional>

#include "ProgramRun.hpp"
#include "dbus/Interface.hpp"
#include "support/BusClient.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/StartedProgram.hpp"

namespace vornet::vi::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vornet::test::BusClient;
using vornet::test::Database;
using vornet::test::Environment;
using vornet::test::PrivateBus;
using vornet::test::ScopedVariable;
using vornet::test::StartedProgram;
using vornet::test::writeFile;

/// Makes file permissions hold for root, too.
const std::vector<std::string> UNPRIVILEGED =
    geteuid() == 0 ? std::vector<std::string>{"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                              "--inh-caps=-dac_override,-dac_read_search", "--"}
                   : std::vector<std::string>();

/// Everything is in order, until a test changes it.
class DoctorTest : public testing::Test {
 protected:
  DoctorTest() {
    fs::create_directories(root);
    install(VORNET_EXTENSION);
    vornet::test::writePreferences(preferences, root);
    vornet::test::makeSyncDatabase(database, {{"/a", 2}});
    server.emplace(answer);
  }
  ~DoctorTest() override {
    if (!bus) return;
    const int process = BusClient(bus->address()).extensionProcess();
    bus->stop();
    vornet::test::waitForEnd(process);
  }

  void install(const std::string& program) const {
    writeFile(service, "[D-BUS Service]\nName=" + std::string(dbus::BUS_NAME) + "\nExec=" + program + "\n");
  }
  /// A script in the extension's place; its path.
  std::string installScript(const std::string& commands) const {
    const std::string script = environment.folder() / "script";
    writeFile(script, "#!/bin/sh\n" + commands + "\n");
    fs::permissions(script, fs::perms::owner_all);
    install(script);
    return script;
  }
  void startBus() {
    if (!bus) bus.emplace(environment.folder().path() / "bus", service.parent_path());
  }
  /// Starts the extension; its process.
  int startExtension() {
    startBus();
    BusClient client(bus->address());
    return (client.property("Version"), client.extensionProcess());
  }
  /// A copy of the extension installed under `prefix`.
  std::string copyExtension(const std::string& prefix) const {
    const fs::path program = environment.folder().path() / prefix / "libexec" / "VornetVIExt";
    fs::create_directories(program.parent_path());
    fs::remove(program);
    fs::copy_file(VORNET_EXTENSION, program);
    const fs::path images = environment.folder().path() / prefix / "share/vornet-vi/images";
    fs::create_directories(images.parent_path());
    if (!fs::exists(images)) fs::create_directory_symlink(VORNET_TEST_IMAGES, images);
    return program;
  }

  /// Runs "status": the identifiers of the problems that it finds, without those of other installations on this
  /// machine.
  std::vector<std::string> problems(std::vector<std::string> options = {}) {
    startBus();
    options.insert(options.begin(), {"status", "--json"});
    ProgramRun::Settings settings;
    settings.busAddress = bus->address();
    settings.wrapper = wrapper;
    ProgramRun program{settings, options};
    code = program.wait();
    boost::system::error_code error;
    const auto parsed = boost::json::parse(program.output, error);
    if (error) return {"no JSON: " + program.output + program.errors};
    EXPECT_TRUE(parsed.at("sync_application").at("milliseconds").is_int64()) << "a plain decimal";
    std::vector<std::string> ids;
    said.clear();
    for (const auto& value : parsed.at("problems").as_array()) {
      const auto& problem = value.as_object();
      const std::string id(problem.at("id").as_string());
      const std::string text(problem.at("problem").as_string());
      if (id == "two-installations" && text.find(environment.folder().path().string()) == std::string::npos) continue;
      ids.push_back(id);
      said += text + "\n";
      EXPECT_FALSE(problem.at("remedy").as_string().empty()) << id;
    }
    EXPECT_EQ(code, parsed.at("problems").as_array().empty() ? 0 : 1);
    return ids;
  }

  /// As `sync.db` has it: a folder filled without its item has no badge for it.
  static WireReply answer(const WireRequest& request) {
    return {.body = request.target == "/get_icons_for_folder" ? R"({"/a":2})" : "{}"};
  }

  Environment environment;
  const ScopedVariable dataFolders{"XDG_DATA_DIRS", environment.folder() / "other"};
  const std::string root = environment.folder() / "root";
  const fs::path preferences = environment.container() / "VornetKelvane.plist";
  const fs::path database = environment.container() / "sync.db";
  const fs::path service =
      fs::path(environment.folder() / "data") / "dbus-1/services" / (std::string(dbus::BUS_NAME) + ".service");
  std::optional<LoopbackServer> server;
  std::optional<PrivateBus> bus;
  std::vector<std::string> wrapper;  // what the program is run by
  std::string said;                  // the problems' texts
  int code = -1;
};

TEST_F(DoctorTest, FindsNothingWrongWithoutStartingTheExtension) {
  const auto log = environment.logFile();
  EXPECT_THAT(problems(), IsEmpty()) << said;
  EXPECT_EQ(BusClient(bus->address()).extensionProcess(), 0);
  EXPECT_FALSE(fs::exists(log.parent_path())) << "it leaves nothing behind";
  startExtension();
  EXPECT_THAT(problems(), IsEmpty()) << said;
}

TEST_F(DoctorTest, SaysInWordsWhatIsWrongAndWhatToDo) {
  fs::remove(preferences);
  startBus();
  ProgramRun::Settings settings;
  settings.busAddress = bus->address();
  ProgramRun program{settings, {"status"}};
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.output, HasSubstr("\n\nThere are no preferences: expected " + preferences.string() +
                                        ", written by Kelvane.\n  Start Kelvane and set it up."));
  EXPECT_THAT(program.errors, testing::EndsWith("found\n"));
}

// --- The installation -----------------------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesAMissingServiceFile) {
  fs::remove(service);
  EXPECT_THAT(problems(), ElementsAre("service-file-missing"));
  EXPECT_THAT(said, HasSubstr(service.parent_path()));
}

TEST_F(DoctorTest, NamesAMissingProgram) {
  install(environment.folder() / "gone/VornetVIExt");
  EXPECT_THAT(problems(), ElementsAre("program-missing"));
  EXPECT_THAT(said, AllOf(HasSubstr(service), HasSubstr("gone/VornetVIExt")));
}

TEST_F(DoctorTest, NamesAServiceFileThatTheBusIgnores) {
  writeFile(service, "[D-BUS Service]\nName=" + std::string(dbus::BUS_NAME) + "\n");
  EXPECT_THAT(problems(), ElementsAre("service-file-ignored"));
}

TEST_F(DoctorTest, NamesTwoInstalledPrograms) {
  const auto other = copyExtension("other");
  const auto otherService = environment.folder().path() / "other/dbus-1/services" / service.filename();
  writeFile(otherService, "[D-BUS Service]\nName=" + std::string(dbus::BUS_NAME) + "\nExec=" + other + "\n");
  EXPECT_THAT(problems(), ElementsAre("two-installations"));
  EXPECT_THAT(said, AllOf(HasSubstr(VORNET_EXTENSION), HasSubstr(other)));
}

TEST_F(DoctorTest, NamesAPluginOfAnotherInstallation) {
  const fs::path plugin = environment.folder() / "home/.local/lib/x86_64-linux-gnu/vornet-vi/libvornet-dolphin.so";
  writeFile(plugin, "");
  EXPECT_THAT(problems(), ElementsAre("two-installations"));
  EXPECT_THAT(said, AllOf(HasSubstr(VORNET_EXTENSION), HasSubstr(plugin)));
}

TEST_F(DoctorTest, NamesAProcessThatIsOlderThanTheInstalledProgram) {
  install(copyExtension("installed"));
  startExtension();
  EXPECT_THAT(problems(), IsEmpty());
  copyExtension("installed");
  EXPECT_THAT(problems(), ElementsAre("process-outdated"));
}

TEST_F(DoctorTest, NamesAProcessOfAnotherInstallation) {
  install(copyExtension("installed"));
  const int process = startExtension();
  install(VORNET_EXTENSION);
  EXPECT_THAT(problems(), ElementsAre("two-installations"));
  EXPECT_THAT(said, AllOf(HasSubstr("pid " + std::to_string(process)), HasSubstr(VORNET_EXTENSION)));
}

TEST_F(DoctorTest, NamesAProgramThatCannotCheckItself) {
  const auto script = installScript("echo usage");
  EXPECT_THAT(problems(), ElementsAre("check-failed"));
  EXPECT_THAT(said, HasSubstr(script));
}

TEST_F(DoctorTest, NamesACheckThatHangs) {
  const auto script = installScript("exec sleep 600");
  EXPECT_THAT(problems({"--timeout", "2"}), ElementsAre("check-hangs"));
  EXPECT_THAT(said, HasSubstr(script));
}

TEST_F(DoctorTest, NamesAnExtensionThatCannotBeStarted) {
  installScript("[ \"$1\" = --check ] && exec '" + std::string(VORNET_EXTENSION) + "' --check\nexit 1");
  EXPECT_THAT(problems(), IsEmpty()) << said;
  EXPECT_THAT(problems({"--start"}), ElementsAre("start-failed"));
  EXPECT_THAT(said, HasSubstr("The extension could not be started: "));
}

TEST_F(DoctorTest, SaysWhyTheExtensionStoppedItself) {
  writeFile(preferences, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>");
  problems({"--start"});
  BusClient client(bus->address());
  ASSERT_TRUE(client.waitUntil([&] { return client.extensionProcess() == 0; }));
  vornet::test::writePreferences(preferences, root);
  EXPECT_THAT(problems(), ElementsAre("stopped"));
  EXPECT_THAT(said,
              HasSubstr("The extension stopped itself the last time: the preferences hold no text under root_dir"));
}

TEST_F(DoctorTest, NamesAFrozenExtension) {
  const int process = startExtension();
  ASSERT_GT(process, 0);
  kill(process, SIGSTOP);
  EXPECT_THAT(problems({"--timeout", "1"}), ElementsAre("frozen"));
  kill(process, SIGKILL);
}

// --- The sync application's files -----------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesAContainerThatHasNoValidPath) {
  wrapper = {"env", "VORNET_GROUP_CONTAINERS=/\xff"};
  EXPECT_THAT(problems(), ElementsAre("container-missing"));
}

TEST_F(DoctorTest, NamesMissingPreferencesAndTheirPlace) {
  fs::remove(preferences);
  EXPECT_THAT(problems(), ElementsAre("preferences-missing"));
  EXPECT_THAT(said, HasSubstr(preferences));
}

TEST_F(DoctorTest, NamesPreferencesThatCannotBeRead) {
  fs::permissions(preferences, fs::perms::none);
  wrapper = UNPRIVILEGED;
  EXPECT_THAT(problems(), ElementsAre("preferences-unreadable"));
}

TEST_F(DoctorTest, NamesPreferencesThatAreGarbage) {
  writeFile(preferences, "root_dir = /here\n");
  EXPECT_THAT(problems(), ElementsAre("preferences-garbage"));
}

TEST_F(DoctorTest, SaysThatPreferencesWithoutAFolderStopTheExtension) {
  writeFile(preferences, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>");
  EXPECT_THAT(problems(), ElementsAre("preferences-without-root"));
  EXPECT_THAT(said, HasSubstr("stops by design"));
  EXPECT_THAT(problems({"--start"}), Contains("preferences-without-root"));
}

TEST_F(DoctorTest, NamesAMissingFolder) {
  fs::remove_all(root);
  EXPECT_THAT(problems(), ElementsAre("folder-missing"));
  EXPECT_THAT(said, HasSubstr(root));
  writeFile(root, "");
  EXPECT_THAT(problems(), ElementsAre("folder-missing"));
}

TEST_F(DoctorTest, NamesAFolderThatTheRunningExtensionDoesNotShow) {
  startBus();
  vornet::test::FakeExtension extension(bus->address(), {"file:///another/"});
  EXPECT_THAT(problems(), Contains("folder-changed"));
  EXPECT_THAT(said, HasSubstr("shows /another, but the preferences name " + root));
}

TEST_F(DoctorTest, NamesAMissingDatabase) {
  fs::remove(database);
  EXPECT_THAT(problems(), ElementsAre("database-missing"));
}

TEST_F(DoctorTest, NamesADatabaseThatCannotBeRead) {
  fs::permissions(database, fs::perms::none);
  wrapper = UNPRIVILEGED;
  EXPECT_THAT(problems(), ElementsAre("database-unreadable"));
}

TEST_F(DoctorTest, NamesALockedDatabase) {
  Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  EXPECT_THAT(problems(), ElementsAre("database-locked"));
  writer.run("COMMIT");
  EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(DoctorTest, NamesADamagedDatabase) {
  writeFile(database, std::string(8192, 'x'));
  EXPECT_THAT(problems(), ElementsAre("database-corrupt"));
  fs::remove(database);
  Database(database).run("CREATE TABLE other (path TEXT)");
  EXPECT_THAT(problems(), ElementsAre("database-corrupt"));
  EXPECT_THAT(said, HasSubstr("no such table"));
}

TEST_F(DoctorTest, NamesADatabaseWhoseDamageNoLookUpMeets) {
  fs::remove(database);
  std::vector<std::pair<std::string, int>> rows;
  for (int i = 0; i < 2000; ++i) rows.emplace_back("/folder/item " + std::to_string(i), 2);
  vornet::test::makeSyncDatabase(database, rows);
  std::string bytes = vornet::test::readFile(database);
  constexpr std::size_t PAGE = 4096;
  ASSERT_GT(bytes.size(), 8 * PAGE);
  bytes.replace(bytes.size() - 3 * PAGE, 2 * PAGE, std::string(2 * PAGE, '\7'));
  writeFile(database, bytes);
  EXPECT_THAT(problems(), ElementsAre("database-corrupt"));
}

// --- The log --------------------------------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesALogThatCannotBeWritten) {
  const auto folder = environment.logFile().parent_path();
  writeFile(folder, "a file in the folder's place");
  EXPECT_THAT(problems(), ElementsAre("log-not-writable"));
  fs::remove(folder);
  fs::create_directories(environment.logFile());
  EXPECT_THAT(problems(), ElementsAre("log-not-writable")) << "a folder in the file's place";
  fs::remove(environment.logFile());
  fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
  wrapper = UNPRIVILEGED;
  EXPECT_THAT(problems(), ElementsAre("log-not-writable"));
  EXPECT_THAT(said, HasSubstr(environment.logFile()));
}

TEST_F(DoctorTest, NamesAFullDisk) {
  const auto folder = environment.logFile().parent_path();
  fs::create_directories(folder);
  const std::string mount = "mount -t tmpfs -o size=64k none '" + folder.string() + "'";
  {
    StartedProgram probe({"unshare", "-m", "sh", "-c", mount}, {}, environment.folder().path() / "probe");
    if (probe.wait() != 0) GTEST_SKIP() << "needs root and mount namespaces";
  }
  wrapper = {"unshare", "-m", "sh", "-c", mount + "; cat /dev/zero > '" + folder.string() + "/full' 2>&-; exec \"$@\"",
             "sh"};
  EXPECT_THAT(problems(), ElementsAre("disk-full"));
}

// --- The sync application -------------------------------------------------------------------------------------------

TEST_F(DoctorTest, SaysSinceWhenTheSyncApplicationIsDown) {
  startBus();
  BusClient client(bus->address());
  ASSERT_TRUE(client.beginObserving("file://" + root));
  ASSERT_TRUE(client.waitUntil([&] { return client.property("SyncApplicationSilentSince") == "0"; }));
  server.reset();
  ASSERT_TRUE(client.waitUntil([&] { return client.property("SyncApplicationSilentSince").size() > 8; }));
  EXPECT_THAT(problems(), ElementsAre("sync-application-down"));
  EXPECT_THAT(said, testing::ContainsRegex("not running since 20[0-9-]* [0-9:]*: nobody listens"));
}

TEST_F(DoctorTest, NamesASyncApplicationThatHasStalled) {
  server->setAnswer([](const auto&) { return WireReply{.manner = WireReply::Manner::stall}; });
  EXPECT_THAT(problems(), ElementsAre("sync-application-stalled"));
}

TEST_F(DoctorTest, NamesASyncApplicationWhoseAnswersAreBroken) {
  server->setAnswer([](const auto&) { return WireReply{.manner = WireReply::Manner::close}; });
  EXPECT_THAT(problems(), ElementsAre("sync-application-fails"));
}

// --- Other commands while the sync application is away --------------------------------------------------------------

class AwayTest : public DoctorTest {
 protected:
  AwayTest() { writeFile(root + "/a", ""); }
  ProgramRun::Settings settings() {
    startBus();
    ProgramRun::Settings settings;
    settings.busAddress = bus->address();
    return settings;
  }
};

TEST_F(AwayTest, ListWarnsThatBadgesMayBeOld) {
  ProgramRun fresh{settings(), {"list", root}};
  EXPECT_EQ(fresh.wait(), 0);
  EXPECT_EQ(fresh.errors, "");
  server.reset();
  BusClient client(bus->address());
  const int knowing = client.extensionProcess();
  ASSERT_GT(knowing, 0);
  kill(knowing, SIGKILL);
  ASSERT_TRUE(client.waitUntil([&] { return client.extensionProcess() == 0; }));
  for (int i = 0; i < 2; ++i) {  // the extension asks meanwhile; then it knows
    ProgramRun old{settings(), {"list", root}};
    EXPECT_EQ(old.wait(), 0);
    EXPECT_THAT(old.output, HasSubstr("Synced"));
    EXPECT_THAT(old.errors, testing::MatchesRegex("vornet-vi: the sync application (does not answer on 127.0.0.1:8806|"
                                                  "has not answered since 20[0-9-]* [0-9:]*): badges may be old\n"));
  }
}

TEST_F(AwayTest, WatchSaysWhenItFallsSilentAndWhenItAnswersAgain) {
  ProgramRun watch{settings(), {"watch", root}};
  ASSERT_TRUE(runUntil([&] { return watch.output.find("Synced") != std::string::npos; }));
  EXPECT_EQ(watch.errors, "");
  server.reset();
  ASSERT_TRUE(runUntil([&] { return watch.errors.find("badges may be old\n") != std::string::npos; })) << watch.errors;
  EXPECT_THAT(watch.errors, testing::MatchesRegex("vornet-vi: the sync application has not answered since "
                                                  "20[0-9-]* [0-9:]*: badges may be old\n"));
  ProgramRun late{settings(), {"watch", "--json", root}};
  EXPECT_TRUE(runUntil([&] { return !late.errors.empty(); })) << "a watch that starts later warns too";
  EXPECT_EQ(boost::json::parse(late.errors).at("warning").at("kind"), "sync-application-silent");
  server.emplace(answer);
  EXPECT_TRUE(runUntil([&] { return watch.errors.ends_with("vornet-vi: the sync application answers again\n"); }));
}

TEST_F(AwayTest, PerformNamesTheCause) {
  server->setAnswer([](const auto&) { return WireReply{.body = R"({"1":true})"}; });
  ProgramRun greyed{settings(), {"perform", "Comments", root + "/a"}};
  EXPECT_EQ(greyed.wait(), 1);
  EXPECT_EQ(greyed.errors, "vornet-vi: \"Comments\" is not available for this selection\n");
  server.reset();
  ProgramRun away{settings(), {"perform", "Share", root + "/a"}};
  EXPECT_EQ(away.wait(), 1);
  EXPECT_THAT(away.errors, testing::MatchesRegex("vornet-vi: \"Share\" is not available: the sync application has not "
                                                 "answered since 20[0-9-]* [0-9:]*\n"));
}

// --- File managers --------------------------------------------------------------------------------------------------

/// A program on the bus by the name of a file manager.
class FileManagerDoctorTest : public DoctorTest {
 protected:
  void SetUp() override {
    const GCharPtr gdbus(g_find_program_in_path("gdbus"));
    ASSERT_TRUE(gdbus) << "gdbus, of the package libglib2.0-bin, is not in PATH";
    fs::copy_file(gdbus.get(), program);
    install(copyExtension("installed"));
  }
  void startFileManager(const std::string& preload) {
    startBus();
    const auto output = environment.folder().path() / "output";
    manager.emplace(std::vector<std::string>{program, "monitor", "--session", "--dest", "org.freedesktop.DBus"},
                    std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus->address(), "LD_PRELOAD=" + preload},
                    output);
    BusClient client(bus->address());
    ASSERT_TRUE(client.waitUntil([&] { return !vornet::test::readFile(output).empty(); }));
  }
  void installPlugin() const {
    fs::create_directories(plugin.parent_path());
    fs::remove(plugin);
    fs::copy_file(VORNET_SOME_LIBRARY, plugin);
  }

  const std::string program = environment.folder() / "nautilus";
  const fs::path plugin =
      environment.folder() / "installed/lib/x86_64-linux-gnu/nautilus/extensions-4/libvornet-nautilus.so";
  std::optional<StartedProgram> manager;
};

TEST_F(FileManagerDoctorTest, NamesOneThatRunsWithoutThePlugin) {
  startFileManager("");
  EXPECT_THAT(problems(), ElementsAre("plugin-not-loaded"));
  EXPECT_THAT(said, HasSubstr("Nautilus (pid " + std::to_string(manager->pid()) +
                              ") runs without the plug-in, which is not installed."));
  installPlugin();
  EXPECT_THAT(problems(), ElementsAre("plugin-not-loaded"));
  EXPECT_THAT(said, HasSubstr("runs without the plug-in."));
}

TEST_F(FileManagerDoctorTest, NamesOneThatRunsWithAnOlderPlugin) {
  installPlugin();
  startFileManager(plugin);
  EXPECT_THAT(problems(), IsEmpty()) << said;
  installPlugin();
  EXPECT_THAT(problems(), ElementsAre("plugin-outdated"));
}

}  // namespace
}  // namespace vornet::vi::test
