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
using testing::Pair;
using vornet::test::BusClient;
using vornet::test::Database;
using vornet::test::Environment;
using vornet::test::StartedProgram;
using vornet::test::writeFile;

/// Makes file permissions hold for root, too.
const std::vector<std::string> UNPRIVILEGED =
    geteuid() == 0 ? std::vector<std::string>{"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                              "--inh-caps=-dac_override,-dac_read_search", "--"}
                   : std::vector<std::string>();

const std::string SERVICE = "[D-BUS Service]\nName=" + std::string(dbus::BUS_NAME) + "\n";

/// Matches findings that are the problem `id` alone, whose text has all `parts`.
template <typename... Part>
auto only(const char* id, const Part&... parts) {
  return ElementsAre(Pair(id, AllOf(HasSubstr(""), HasSubstr(parts)...)));
}

/// Everything is in order, until a test changes it.
struct DoctorTest : testing::Test {
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

  void install(const std::string& program) const { install(program, service); }
  static void install(const std::string& program, const fs::path& file) {
    writeFile(file, SERVICE + "Exec=" + program + "\n");
  }
  /// Puts a script in the extension's place.
  void installScript(const std::string& commands) const {
    writeFile(script, "#!/bin/sh\n" + commands + "\n");
    fs::permissions(script, fs::perms::owner_all);
    install(script);
  }
  /// Lets the program not read `file`.
  void forbid(const fs::path& file) {
    fs::permissions(file, fs::perms::none);
    settings.wrapper = UNPRIVILEGED;
  }
  void serve(const WireReply& reply) {
    server->setAnswer([reply](const auto&) { return reply; });
  }
  void startBus() {
    if (bus) return;
    bus.emplace(environment.folder().path() / "bus", service.parent_path());
    settings.busAddress = bus->address();
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

  /// Runs "status": the problems that it finds, identifier and text, without those of other installations on this
  /// machine.
  std::vector<std::pair<std::string, std::string>> problems(std::vector<std::string> options = {}) {
    startBus();
    options.insert(options.begin(), {"status", "--json"});
    ProgramRun program{settings, options};
    const int code = program.wait();
    boost::system::error_code error;
    const auto parsed = boost::json::parse(program.output, error);
    if (error) return {{"no JSON", program.output + program.errors}};
    EXPECT_TRUE(parsed.at("sync_application").at("milliseconds").is_int64()) << "a plain decimal";
    std::vector<std::pair<std::string, std::string>> found;
    for (const auto& problem : parsed.at("problems").as_array()) {
      const auto text = [&](const char* key) { return std::string(problem.at(key).as_string()); };
      EXPECT_NE(text("remedy"), "") << text("id");
      const bool isOurs = text("problem").find(environment.folder().path().string()) != std::string::npos;
      if (isOurs || text("id") != "two-installations") found.emplace_back(text("id"), text("problem"));
    }
    EXPECT_EQ(code, parsed.at("problems").as_array().empty() ? 0 : 1);
    return found;
  }

  /// As `sync.db` has it: a folder filled without its item has no badge for it.
  static WireReply answer(const WireRequest& request) {
    return {.body = request.target == "/get_icons_for_folder" ? R"({"/a":2})" : "{}"};
  }

  Environment environment;
  const vornet::test::ScopedVariable dataFolders{"XDG_DATA_DIRS", environment.folder() / "other"};
  const std::string root = environment.folder() / "root";
  const fs::path preferences = environment.container() / "VornetKelvane.plist";
  const fs::path database = environment.container() / "sync.db";
  const fs::path service =
      fs::path(environment.folder() / "data") / "dbus-1/services" / (std::string(dbus::BUS_NAME) + ".service");
  const std::string script = environment.folder() / "script";
  std::optional<LoopbackServer> server;
  std::optional<vornet::test::PrivateBus> bus;
  ProgramRun::Settings settings;
};

TEST_F(DoctorTest, FindsNothingWrongWithoutStartingTheExtension) {
  const auto log = environment.logFile();
  EXPECT_THAT(problems(), IsEmpty());
  EXPECT_EQ(BusClient(bus->address()).extensionProcess(), 0);
  EXPECT_FALSE(fs::exists(log.parent_path())) << "it leaves nothing behind";
  startExtension();
  EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(DoctorTest, SaysInWordsWhatIsWrongAndWhatToDo) {
  fs::remove(preferences);
  startBus();
  ProgramRun program{settings, {"status"}};
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.output, HasSubstr("\n\nThere are no preferences: expected " + preferences.string() +
                                        ", written by Kelvane.\n  Start Kelvane and set it up."));
  EXPECT_THAT(program.errors, testing::EndsWith("found\n"));
}

// --- One thing wrong ------------------------------------------------------------------------------------------------

struct Fault {
  const char* name;
  const char* id;  // of the only problem
  void (*cause)(DoctorTest&);
  std::string (*named)(const DoctorTest&) = [](const DoctorTest&) { return std::string(); };  // in the problem's text

  friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }
};

struct FaultTest : DoctorTest, testing::WithParamInterface<Fault> {};

TEST_P(FaultTest, IsNamed) {
  GetParam().cause(*this);
  EXPECT_THAT(problems(), only(GetParam().id, GetParam().named(*this)));
}

INSTANTIATE_TEST_SUITE_P(
    , FaultTest,
    testing::Values(
        Fault{"AMissingServiceFile", "service-file-missing", [](auto& test) { fs::remove(test.service); },
              [](const auto& test) { return test.service.parent_path().string(); }},
        Fault{"AMissingProgram", "program-missing", [](auto& test) { test.install("/gone/VornetVIExt"); },
              [](const auto& test) { return test.service.string() + " names /gone/VornetVIExt"; }},
        Fault{"AServiceFileThatTheBusIgnores", "service-file-ignored",
              [](auto& test) { writeFile(test.service, SERVICE); }},
        Fault{"AProgramThatCannotCheckItself", "check-failed", [](auto& test) { test.installScript("echo usage"); },
              [](const auto& test) { return test.script; }},
        Fault{"AContainerThatHasNoValidPath", "container-missing",
              [](auto& test) { test.settings.wrapper = {"env", "VORNET_GROUP_CONTAINERS=/\xff"}; }},
        Fault{"MissingPreferencesAndTheirPlace", "preferences-missing",
              [](auto& test) { fs::remove(test.preferences); },
              [](const auto& test) { return test.preferences.string(); }},
        Fault{"PreferencesThatCannotBeRead", "preferences-unreadable",
              [](auto& test) { test.forbid(test.preferences); }},
        Fault{"PreferencesThatAreGarbage", "preferences-garbage",
              [](auto& test) { writeFile(test.preferences, "root_dir = /here\n"); }},
        Fault{"AMissingFolder", "folder-missing", [](auto& test) { fs::remove_all(test.root); },
              [](const auto& test) { return test.root; }},
        Fault{"AFileInTheFoldersPlace", "folder-missing",
              [](auto& test) {
                fs::remove_all(test.root);
                writeFile(test.root, "");
              }},
        Fault{"AMissingDatabase", "database-missing", [](auto& test) { fs::remove(test.database); }},
        Fault{"ADatabaseThatCannotBeRead", "database-unreadable", [](auto& test) { test.forbid(test.database); }},
        Fault{"ADamagedDatabase", "database-corrupt",
              [](auto& test) { writeFile(test.database, std::string(8192, 'x')); }},
        Fault{"AFileInThePlaceOfTheLogsFolder", "log-not-writable",
              [](auto& test) { writeFile(test.environment.logFile().parent_path(), ""); }},
        Fault{"AFolderInThePlaceOfTheLog", "log-not-writable",
              [](auto& test) { fs::create_directories(test.environment.logFile()); }},
        Fault{"ASyncApplicationThatHasStalled", "sync-application-stalled",
              [](auto& test) { test.serve({.manner = WireReply::Manner::stall}); }},
        Fault{"ASyncApplicationWhoseAnswersAreBroken", "sync-application-fails",
              [](auto& test) { test.serve({.manner = WireReply::Manner::close}); }}),
    [](const auto& fault) { return fault.param.name; });

// --- The installation -----------------------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesTwoInstalledPrograms) {
  const auto other = copyExtension("other");
  install(other, environment.folder().path() / "other/dbus-1/services" / service.filename());
  EXPECT_THAT(problems(), only("two-installations", VORNET_EXTENSION, other));
}

TEST_F(DoctorTest, NamesAPluginOfAnotherInstallation) {
  const fs::path plugin = environment.folder() / "home/.local/lib/x86_64-linux-gnu/vornet-vi/libvornet-dolphin.so";
  writeFile(plugin, "");
  EXPECT_THAT(problems(), only("two-installations", VORNET_EXTENSION, plugin.string()));
}

TEST_F(DoctorTest, NamesAProcessThatIsOlderThanTheInstalledProgram) {
  install(copyExtension("installed"));
  startExtension();
  EXPECT_THAT(problems(), IsEmpty());
  copyExtension("installed");
  EXPECT_THAT(problems(), only("process-outdated"));
}

TEST_F(DoctorTest, NamesAProcessOfAnotherInstallation) {
  install(copyExtension("installed"));
  const int process = startExtension();
  install(VORNET_EXTENSION);
  EXPECT_THAT(problems(), only("two-installations", "pid " + std::to_string(process), VORNET_EXTENSION));
}

TEST_F(DoctorTest, NamesACheckThatHangs) {
  installScript("exec sleep 600");
  EXPECT_THAT(problems({"--timeout", "2"}), only("check-hangs", script));
}

TEST_F(DoctorTest, NamesAnExtensionThatCannotBeStarted) {
  installScript("[ \"$1\" = --check ] && exec '" + std::string(VORNET_EXTENSION) + "' --check\nexit 1");
  EXPECT_THAT(problems(), IsEmpty());
  EXPECT_THAT(problems({"--start"}), only("start-failed", "The extension could not be started: "));
}

TEST_F(DoctorTest, SaysWhyTheExtensionStoppedItself) {
  writeFile(preferences, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>");
  problems({"--start"});
  BusClient client(bus->address());
  ASSERT_TRUE(client.waitUntil([&] { return client.extensionProcess() == 0; }));
  vornet::test::writePreferences(preferences, root);
  EXPECT_THAT(
      problems(),
      only("stopped", "The extension stopped itself the last time: the preferences hold no text under root_dir"));
}

TEST_F(DoctorTest, NamesAFrozenExtension) {
  const int process = startExtension();
  ASSERT_GT(process, 0);
  kill(process, SIGSTOP);
  EXPECT_THAT(problems({"--timeout", "1"}), only("frozen"));
  kill(process, SIGKILL);
}

// --- The sync application's files -----------------------------------------------------------------------------------

TEST_F(DoctorTest, SaysThatPreferencesWithoutAFolderStopTheExtension) {
  writeFile(preferences, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>");
  EXPECT_THAT(problems(), only("preferences-without-root", "stops by design"));
  EXPECT_THAT(problems({"--start"}), Contains(Pair("preferences-without-root", testing::_)));
}

TEST_F(DoctorTest, NamesAFolderThatTheRunningExtensionDoesNotShow) {
  startBus();
  vornet::test::FakeExtension extension(bus->address(), {"file:///another/"});
  EXPECT_THAT(problems(),
              Contains(Pair("folder-changed", HasSubstr("shows /another, but the preferences name " + root))));
}

TEST_F(DoctorTest, NamesALockedDatabase) {
  Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  EXPECT_THAT(problems(), only("database-locked"));
  writer.run("COMMIT");
  EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(DoctorTest, NamesADatabaseWithoutTheTable) {
  fs::remove(database);
  Database(database).run("CREATE TABLE other (path TEXT)");
  EXPECT_THAT(problems(), only("database-corrupt", "no such table"));
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
  EXPECT_THAT(problems(), only("database-corrupt"));
}

// --- The log --------------------------------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesALogThatCannotBeWritten) {
  const auto folder = environment.logFile().parent_path();
  fs::create_directories(folder);
  fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
  settings.wrapper = UNPRIVILEGED;
  EXPECT_THAT(problems(), only("log-not-writable", environment.logFile()));
}

TEST_F(DoctorTest, NamesAFullDisk) {
  const auto folder = environment.logFile().parent_path();
  fs::create_directories(folder);
  const std::string mount = "mount -t tmpfs -o size=64k none '" + folder.string() + "'";
  {
    StartedProgram probe({"unshare", "-m", "sh", "-c", mount}, {}, environment.folder().path() / "probe");
    if (probe.wait() != 0) GTEST_SKIP() << "needs root and mount namespaces";
  }
  settings.wrapper = {
      "unshare", "-m", "sh", "-c", mount + "; cat /dev/zero > '" + folder.string() + "/full' 2>&-; exec \"$@\"", "sh"};
  EXPECT_THAT(problems(), only("disk-full"));
}

// --- The sync application -------------------------------------------------------------------------------------------

TEST_F(DoctorTest, SaysSinceWhenTheSyncApplicationIsDown) {
  startBus();
  BusClient client(bus->address());
  ASSERT_TRUE(client.beginObserving("file://" + root));
  ASSERT_TRUE(client.waitUntil([&] { return client.property("SyncApplicationSilentSince") == "0"; }));
  server.reset();
  ASSERT_TRUE(client.waitUntil([&] { return client.property("SyncApplicationSilentSince").size() > 8; }));
  EXPECT_THAT(problems(),
              ElementsAre(Pair("sync-application-down",
                               testing::ContainsRegex("not running since 20[0-9-]* [0-9:]*: nobody listens"))));
}

// --- Other commands while the sync application is away --------------------------------------------------------------

struct AwayTest : DoctorTest {
  AwayTest() {
    writeFile(root + "/a", "");
    startBus();
  }
};

TEST_F(AwayTest, ListWarnsThatBadgesMayBeOld) {
  ProgramRun fresh{settings, {"list", root}};
  EXPECT_EQ(fresh.wait(), 0);
  EXPECT_EQ(fresh.errors, "");
  server.reset();
  BusClient client(bus->address());
  const int knowing = client.extensionProcess();
  ASSERT_GT(knowing, 0);
  kill(knowing, SIGKILL);
  ASSERT_TRUE(client.waitUntil([&] { return client.extensionProcess() == 0; }));
  for (int i = 0; i < 2; ++i) {  // the extension asks meanwhile; then it knows
    ProgramRun old{settings, {"list", root}};
    EXPECT_EQ(old.wait(), 0);
    EXPECT_THAT(old.output, HasSubstr("Synced"));
    EXPECT_THAT(old.errors, testing::MatchesRegex("vornet-vi: the sync application (does not answer on 127.0.0.1:8806|"
                                                  "has not answered since 20[0-9-]* [0-9:]*): badges may be old\n"));
  }
}

TEST_F(AwayTest, WatchSaysWhenItFallsSilentAndWhenItAnswersAgain) {
  ProgramRun watch{settings, {"watch", root}};
  ASSERT_TRUE(runUntil([&] { return watch.output.find("Synced") != std::string::npos; }));
  EXPECT_EQ(watch.errors, "");
  server.reset();
  ASSERT_TRUE(runUntil([&] { return watch.errors.find("badges may be old\n") != std::string::npos; })) << watch.errors;
  EXPECT_THAT(watch.errors, testing::MatchesRegex("vornet-vi: the sync application has not answered since "
                                                  "20[0-9-]* [0-9:]*: badges may be old\n"));
  ProgramRun late{settings, {"watch", "--json", root}};
  EXPECT_TRUE(runUntil([&] { return !late.errors.empty(); })) << "a watch that starts later warns too";
  EXPECT_EQ(boost::json::parse(late.errors).at("warning").at("kind"), "sync-application-silent");
  server.emplace(answer);
  EXPECT_TRUE(runUntil([&] { return watch.errors.ends_with("vornet-vi: the sync application answers again\n"); }));
}

TEST_F(AwayTest, PerformNamesTheCause) {
  serve({.body = R"({"1":true})"});
  ProgramRun greyed{settings, {"perform", "Comments", root + "/a"}};
  EXPECT_EQ(greyed.wait(), 1);
  EXPECT_EQ(greyed.errors, "vornet-vi: \"Comments\" is not available for this selection\n");
  server.reset();
  ProgramRun away{settings, {"perform", "Share", root + "/a"}};
  EXPECT_EQ(away.wait(), 1);
  EXPECT_THAT(away.errors, testing::MatchesRegex("vornet-vi: \"Share\" is not available: the sync application has not "
                                                 "answered since 20[0-9-]* [0-9:]*\n"));
}

// --- File managers --------------------------------------------------------------------------------------------------

/// A program on the bus by the name of a file manager.
struct FileManagerDoctorTest : DoctorTest {
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
  EXPECT_THAT(problems(), only("plugin-not-loaded", "Nautilus (pid " + std::to_string(manager->pid()) +
                                                        ") runs without the plug-in, which is not installed."));
  installPlugin();
  EXPECT_THAT(problems(), only("plugin-not-loaded", "runs without the plug-in."));
}

TEST_F(FileManagerDoctorTest, NamesOneThatRunsWithAnOlderPlugin) {
  installPlugin();
  startFileManager(plugin);
  EXPECT_THAT(problems(), IsEmpty());
  installPlugin();
  EXPECT_THAT(problems(), only("plugin-outdated"));
}

}  // namespace
}  // namespace vornet::vi::test
