// One copy of the extension serves a session, from before its first call to after its last: the built program on a real
// message bus.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <tuple>

#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// What is in `folder`, by name below it: which file, of what kind, how long, and when it was written.
auto listing(const fs::path& folder) {
  std::map<std::string, std::tuple<ino_t, mode_t, off_t, time_t, long>> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat file{};
    if (::lstat(entry.path().c_str(), &file) != 0) continue;
    files[entry.path().lexically_relative(folder)] = {file.st_ino, file.st_mode, file.st_size, file.st_mtim.tv_sec,
                                                      file.st_mtim.tv_nsec};
  }
  return files;
}

std::vector<std::string> names(const fs::path& folder) {
  std::vector<std::string> result;
  for (const auto& [name, state] : listing(folder)) result.push_back(name);
  return result;
}

class OneCopy : public ExtensionTest {
 protected:
  OneCopy() {
    fs::create_directories(other);
    startConfigured({{"x", 0}});
  }
  ~OneCopy() override {
    calling = false;
    client->waitUntil([this] { return inFlight == 0; });
  }

  std::unique_ptr<StartedProgram> launchCopy() { return launch({VORNET_EXTENSION}); }
  fs::path runtime() const { return environment.folder() / "runtime"; }

  /// Makes calls from now on, several at a time, while the client waits for something.
  void keepCalling() {
    for (std::size_t i = 0; i < 20; ++i) callAgain(i);
  }
  void callAgain(std::size_t kind) {
    if (!calling) return;
    ++inFlight;
    const auto done = [this, kind](const BusReply& reply) {
      --inFlight;
      ++answered;
      if (!reply) ++errors[reply.error];
      callAgain(kind);
    };
    client->call(kind % 2 ? "GetMenu" : "RequestBadges", BusClient::urlArguments({url("x")}), done);
  }
  /// Waits until another process than `former` serves, and has answered calls. The process; 0 when there is none.
  int successorOf(int former) {
    const int next = waitForProcess(former);
    const auto before = answered;
    return client->waitUntil([&] { return answered > before + 40; }) ? next : 0;
  }

  const std::string other = environment.folder() / "other";
  bool calling = true;
  std::size_t inFlight = 0;
  std::size_t answered = 0;
  std::map<std::string, int> errors;
};

TEST_F(OneCopy, IsLeftOfFourThatStartAtOnce) {
  for (int round = 0; round < 10; ++round) {
    std::vector<std::unique_ptr<StartedProgram>> copies;
    for (int i = 0; i < 4; ++i) copies.push_back(launchCopy());
    const int left = waitForProcess();
    const auto serving = std::ranges::find(copies, left, &StartedProgram::pid);
    ASSERT_NE(serving, copies.end());
    for (const auto& copy : copies) {
      if (copy == *serving) continue;
      EXPECT_EQ(copy->wait(), 0);
      EXPECT_THAT(copy->output(), HasSubstr("VornetVIExt already running\n"));
    }
    EXPECT_EQ(client->property("ObservedFolders"), observed());
    EXPECT_EQ(client->extensionProcess(), left);
    EXPECT_THAT(logText(), HasSubstr("PID: " + std::to_string(left) + "\n"));
    (*serving)->signal(SIGTERM);
    EXPECT_EQ((*serving)->wait(), 0);
  }
}

TEST_F(OneCopy, ADuplicateSaysSoEndsWithStatus0AndChangesNoFile) {
  EXPECT_EQ(client->property("ObservedFolders"), observed());
  const int first = process();
  const auto files = listing(container);
  const auto log = logText();
  EXPECT_THAT(run({VORNET_EXTENSION}), FieldsAre(0, HasSubstr("VornetVIExt already running\n")));
  EXPECT_EQ(listing(container), files);
  EXPECT_EQ(logText(), log);
  EXPECT_EQ(process(), first);
}

TEST_F(OneCopy, WritesNothingButItsLog) {
  ASSERT_THAT(names(runtime()), IsEmpty());
  ASSERT_THAT(names(container), ElementsAre("VornetKelvane.plist", "sync.db"));
  const auto before = names(environment.folder().path());
  for (const int ending : {SIGKILL, SIGTERM}) {
    ASSERT_TRUE(client->beginObserving(url()));
    badge("x");
    menu({"x"});
    EXPECT_EQ(run({VORNET_EXTENSION}).status, 0);
    const int last = process();
    ::kill(last, ending);
    ASSERT_TRUE(waitForEnd(last));
    ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0; }));
  }
  EXPECT_THAT(names(container), ElementsAre("VornetKelvane.plist", "log", "log/vi.log", "sync.db"));
  EXPECT_THAT(names(runtime()), IsEmpty());
  auto after = names(environment.folder().path());
  std::erase_if(after, [&](const std::string& name) {
    return name.starts_with("output/") || name.find("KelvaneSync/log") != std::string::npos;
  });
  EXPECT_EQ(after, before);
}

TEST_F(OneCopy, CallsDuringTheStartAreAnsweredWithWhatTheExtensionKnows) {
  for (int round = 0; round < 20; ++round) {
    const auto extension = launchCopy();
    waitForProcess();  // from now on the bus gives it calls
    EXPECT_TRUE(client->beginObserving(url()));
    EXPECT_EQ(client->property("ObservedFolders"), observed());
    EXPECT_THAT(client->property("Badges"), HasSubstr("('SYNCED', 'Synced', 'checkmark')"));
    EXPECT_EQ(client->property("LogFile"), "'" + environment.logFile().string() + "'");
    EXPECT_EQ(client->extensionProcess(), extension->pid());
    extension->signal(SIGTERM);
    EXPECT_EQ(extension->wait(), 0);
  }
}

TEST_F(OneCopy, NoCallIsLostWhileOneEndsAndTheNextStarts) {
  keepCalling();
  int last = waitForProcess();
  for (int round = 0; round < 15; ++round) {
    ::kill(last, SIGTERM);
    ASSERT_NE(last = successorOf(last), 0);
  }
  EXPECT_THAT(errors, IsEmpty());
}

TEST_F(OneCopy, NoCallIsLostWhileTheSyncedFolderChanges) {
  int last = process();
  keepCalling();
  for (int round = 0; round < 6; ++round) {
    const auto& next = round % 2 == 0 ? other : root;
    configure(next);
    ASSERT_NE(last = successorOf(last), 0);
    EXPECT_EQ(client->property("ObservedFolders"), observed(next));
  }
  EXPECT_THAT(errors, IsEmpty());
}

TEST_F(OneCopy, ActionsThatWaitWhenItIsAskedToEndAreCarriedOutOnce) {
  SyncApplication application;
  EXPECT_EQ(client->property("ObservedFolders"), observed());
  constexpr std::size_t ACTIONS = 40;  // more than are carried out at a time
  std::size_t done = 0;
  for (std::size_t i = 0; i < ACTIONS; ++i) {
    client->call("PerformAction", BusClient::actionArguments("copyLink:", {url("x")}), [&](const BusReply& reply) {
      EXPECT_EQ(reply.error, "");
      ++done;
    });
  }
  ASSERT_TRUE(application.waitForRequests(1));
  ::kill(client->extensionProcess(), SIGTERM);
  ASSERT_TRUE(client->waitUntil([&] { return done == ACTIONS; }));
  EXPECT_TRUE(application.waitForRequests(ACTIONS));
  EXPECT_EQ(application.bodies("select_context_menu").size(), ACTIONS);
}

TEST_F(OneCopy, AKilledOneRestartsWithTheNextCallAndANewLog) {
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(client->beginObserving(url("d")));
    const int killed = client->extensionProcess();
    ::kill(killed, SIGKILL);
    auto next = client->beginObserving(url("e"));
    if (next.error == "NoReply") next = client->beginObserving(url("e"));  // the bus gave it to the killed one
    EXPECT_EQ(next.error, "");
    EXPECT_NE(client->extensionProcess(), killed);
    EXPECT_EQ(logged("Directory enter: " + root + "/e\n"), 1u);
    EXPECT_EQ(logged("Directory enter: " + root + "/d\n"), 0u);
    ASSERT_TRUE(client->endObserving(url("e")));
  }
}

}  // namespace
}  // namespace vornet::test
