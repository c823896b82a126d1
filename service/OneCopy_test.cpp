// One copy of the extension serves a session, from before its first call to after its last: the built program on a real
// message bus.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
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
using testing::IsEmpty;
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

constexpr const char* NO_REPLY = "NoReply";

/// What is in `folder`, by name below it: which file, how long, and when it was written.
std::map<std::string, std::string> listing(const fs::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat file{};
    if (::lstat(entry.path().c_str(), &file) != 0) continue;
    std::string state = entry.is_directory() ? "folder" : "file of " + std::to_string(file.st_size) + " bytes";
    state += ", number " + std::to_string(file.st_ino) + ", written " + std::to_string(file.st_mtim.tv_sec) + "." +
             std::to_string(file.st_mtim.tv_nsec);
    files[entry.path().lexically_relative(folder)] = state;
  }
  return files;
}

std::vector<std::string> names(const fs::path& folder) {
  std::vector<std::string> result;
  for (const auto& [name, state] : listing(folder)) result.push_back(name);
  return result;
}

class OneCopy : public testing::Test {
 protected:
  OneCopy() {
    for (const auto& folder : {root, other}) fs::create_directories(folder);
    writeFile(root + "/x", "");
    vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"x", 0}});
    configure(root);
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }
  ~OneCopy() override {
    calling = false;
    client->waitUntil([this] { return underWay == 0; });
    const int process = client->extensionProcess();
    bus->stop();
    vornet::test::waitForEnd(process);
    EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
    if (HasFailure()) std::fputs((readFile(bus->output()) + readFile(environment.folder() / "output")).c_str(), stderr);
  }

  void configure(const std::string& folder) const {
    vornet::test::writePreferences(environment.container() / "new", folder);
    fs::rename(environment.container() / "new", environment.container() / "VornetKelvane.plist");
  }
  std::unique_ptr<StartedProgram> start(const std::string& output) const {
    return std::make_unique<StartedProgram>(std::vector<std::string>{VORNET_EXTENSION},
                                            std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus->address()},
                                            environment.folder() / output);
  }
  /// The process that serves, once there is one.
  int waitForProcess() {
    int process = 0;
    EXPECT_TRUE(client->waitUntil([&] { return (process = client->extensionProcess()) != 0; }));
    return process;
  }
  std::string observed(const std::string& folder) const { return "['file://" + folder + "/']"; }
  fs::path runtime() const { return environment.folder() / "runtime"; }

  /// Makes calls from now on, several at a time, while the client waits for something.
  void keepCalling() {
    for (int i = 0; i < 20; ++i) callAgain(i);
  }
  void callAgain(int kind) {
    static constexpr std::array<const char*, 2> METHODS{"RequestBadges", "GetMenu"};
    if (!calling) return;
    ++underWay;
    client->call(METHODS[static_cast<std::size_t>(kind) % METHODS.size()],
                 BusClient::urlArguments({"file://" + root + "/x"}), [this, kind](const BusReply& reply) {
                   --underWay;
                   ++answered;
                   if (!reply.error.empty()) ++errors[reply.error];
                   callAgain(kind);
                 });
  }
  /// Waits until another process than `former` serves, and has answered calls.
  testing::AssertionResult isFollowed(int former) {
    if (!client->waitUntil([&] {
          const int now = client->extensionProcess();
          return now != 0 && now != former;
        })) {
      return testing::AssertionFailure() << "nobody follows " << former;
    }
    const auto before = answered;
    if (!client->waitUntil([&] { return answered > before + 40; })) {
      return testing::AssertionFailure() << "calls are not answered";
    }
    return testing::AssertionSuccess();
  }

  Environment environment;
  const std::string root = environment.folder() / "root";
  const std::string other = environment.folder() / "other";
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
  bool calling = true;
  std::size_t underWay = 0;
  std::size_t answered = 0;
  std::map<std::string, int> errors;
};

TEST_F(OneCopy, IsLeftOfFourThatStartAtOnce) {
  for (int round = 0; round < 10; ++round) {
    std::vector<std::unique_ptr<StartedProgram>> copies;
    std::vector<std::string> outputs;
    for (int i = 0; i < 4; ++i) {
      outputs.push_back("output" + std::to_string(round) + std::to_string(i));
      copies.push_back(start(outputs.back()));
    }
    const int left = waitForProcess();
    int served = 0;
    for (std::size_t i = 0; i < copies.size(); ++i) {
      if (copies[i]->pid() == left) {
        ++served;
        continue;
      }
      EXPECT_EQ(copies[i]->wait(), 0);
      EXPECT_THAT(readFile(environment.folder() / outputs[i]), HasSubstr("VornetVIExt already running\n"));
    }
    ASSERT_EQ(served, 1);
    EXPECT_EQ(client->property("ObservedFolders"), observed(root));
    EXPECT_EQ(client->extensionProcess(), left);
    EXPECT_THAT(readFile(environment.logFile()), HasSubstr("PID: " + std::to_string(left) + "\n"));
    ::kill(left, SIGTERM);
    for (const auto& copy : copies) {
      if (copy->pid() != left) continue;
      EXPECT_EQ(copy->wait(), 0);
    }
  }
}

TEST_F(OneCopy, ADuplicateSaysSoEndsWithStatus0AndChangesNoFile) {
  EXPECT_EQ(client->property("ObservedFolders"), observed(root));
  const int process = client->extensionProcess();
  const auto container = listing(environment.container());
  const auto log = readFile(environment.logFile());
  const auto duplicate = start("duplicate");
  EXPECT_EQ(duplicate->wait(), 0);
  EXPECT_THAT(readFile(environment.folder() / "duplicate"), HasSubstr("VornetVIExt already running\n"));
  EXPECT_EQ(listing(environment.container()), container);
  EXPECT_EQ(readFile(environment.logFile()), log);
  EXPECT_EQ(client->extensionProcess(), process);
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
}

TEST_F(OneCopy, WritesNothingButItsLog) {
  ASSERT_THAT(names(runtime()), IsEmpty());
  ASSERT_THAT(names(environment.container()), ElementsAre("VornetKelvane.plist", "sync.db"));
  const auto before = names(environment.folder().path());
  for (const int ending : {SIGKILL, SIGTERM}) {
    ASSERT_TRUE(client->beginObserving("file://" + root));
    EXPECT_TRUE(client->requestBadges({"file://" + root + "/x"}));
    std::vector<vornet::test::MenuEntry> entries;
    EXPECT_TRUE(client->menu({"file://" + root + "/x"}, entries));
    EXPECT_EQ(start("duplicate")->wait(), 0);
    const int process = client->extensionProcess();
    ::kill(process, ending);
    ASSERT_TRUE(vornet::test::waitForEnd(process));
    ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0; }));
  }
  EXPECT_THAT(names(environment.container()), ElementsAre("VornetKelvane.plist", "log", "log/vi.log", "sync.db"));
  EXPECT_THAT(names(runtime()), IsEmpty());
  auto after = names(environment.folder().path());
  std::erase_if(after, [&](const std::string& name) {
    return name == "duplicate" || name.find("KelvaneSync/log") != std::string::npos;
  });
  EXPECT_EQ(after, before);
}

TEST_F(OneCopy, CallsDuringTheStartAreAnsweredWithWhatTheExtensionKnows) {
  for (int round = 0; round < 20; ++round) {
    const auto extension = start("output");
    waitForProcess();  // from now on the bus gives it calls
    EXPECT_TRUE(client->beginObserving("file://" + root));
    EXPECT_EQ(client->property("ObservedFolders"), observed(root));
    EXPECT_THAT(client->property("Badges"), HasSubstr("('SYNCED', 'Synced', 'checkmark')"));
    EXPECT_EQ(client->property("LogFile"), "'" + environment.logFile().string() + "'");
    EXPECT_EQ(client->extensionProcess(), extension->pid());
    extension->signal(SIGTERM);
    EXPECT_EQ(extension->wait(), 0);
  }
}

TEST_F(OneCopy, NoCallIsLostWhileOneEndsAndTheNextStarts) {
  keepCalling();
  int process = waitForProcess();
  for (int round = 0; round < 15; ++round) {
    ::kill(process, SIGTERM);
    ASSERT_TRUE(isFollowed(process));
    process = client->extensionProcess();
  }
  EXPECT_THAT(errors, IsEmpty());
}

TEST_F(OneCopy, NoCallIsLostWhileTheSyncedFolderChanges) {
  EXPECT_EQ(client->property("ObservedFolders"), observed(root));
  keepCalling();
  int process = client->extensionProcess();
  for (int round = 0; round < 6; ++round) {
    const auto& next = round % 2 == 0 ? other : root;
    configure(next);
    ASSERT_TRUE(isFollowed(process));
    EXPECT_EQ(client->property("ObservedFolders"), observed(next));
    process = client->extensionProcess();
  }
  EXPECT_THAT(errors, IsEmpty());
}

TEST_F(OneCopy, ActionsThatWaitWhenItIsAskedToEndAreCarriedOutOnce) {
  LoopbackServer application([](const WireRequest&) { return WireReply{}; });
  EXPECT_EQ(client->property("ObservedFolders"), observed(root));
  constexpr std::size_t ACTIONS = 40;  // more than are carried out at a time
  std::size_t done = 0;
  for (std::size_t i = 0; i < ACTIONS; ++i) {
    const std::string url = "file://" + root + "/x";
    const gchar* const selection[] = {url.c_str(), nullptr};
    client->call("PerformAction", g_variant_new("(s^as)", "copyLink:", selection), [&](const BusReply& reply) {
      EXPECT_EQ(reply.error, "");
      ++done;
    });
  }
  ASSERT_TRUE(application.waitForRequests(1));
  ::kill(client->extensionProcess(), SIGTERM);
  ASSERT_TRUE(client->waitUntil([&] { return done == ACTIONS; }));
  EXPECT_TRUE(application.waitForRequests(ACTIONS));
  EXPECT_EQ(application.requests().size(), ACTIONS);
}

TEST_F(OneCopy, KilledItIsBackWithTheNextCall) {
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(client->beginObserving("file://" + root));
    const int process = client->extensionProcess();
    ::kill(process, SIGKILL);
    auto next = client->beginObserving("file://" + root);
    if (next.error == NO_REPLY) next = client->beginObserving("file://" + root);  // the bus gave it to the killed one
    EXPECT_EQ(next.error, "");
    EXPECT_NE(client->extensionProcess(), process);
  }
}

}  // namespace
