#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/AppKit.hpp"
#include "platform/linux/Host.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::Gate;
using test::ScopedVariable;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string APPLICATION = "com.example.application";

std::vector<std::int64_t> running() {
  return runningApplicationsWithBundleIdentifier(APPLICATION);
}

void become(const std::string& application) {
  host::setMainBundle({.identifier = application, .version = "", .build = "", .imageFolders = {}});
}

class RunningApplications : public testing::Test {
 protected:
  /// Starts a process of the application, which runs until the gate `end` is opened.
  std::unique_ptr<ChildProcess> start() {
    auto child = std::make_unique<ChildProcess>([this] {
      become(APPLICATION);
      running();
      started.open();
      end.pass();
      return 0;
    });
    started.pass(++processes);
    return child;
  }
  fs::path lockFile(std::int64_t process) const {
    return fs::path(folder / "runtime") / "vornet-vi" / "running" / APPLICATION / std::to_string(process);
  }

  test::TemporaryFolder folder;
  ScopedVariable runtime{"XDG_RUNTIME_DIR", folder / "runtime"};
  Gate started;
  Gate end;
  std::uint64_t processes = 0;  // started
};

TEST_F(RunningApplications, AreNoneWhenNoneRuns) {
  EXPECT_THAT(running(), IsEmpty());
  become("com.example.other");
  EXPECT_THAT(running(), IsEmpty());
}

TEST_F(RunningApplications, HoldThisProcessWhenItIsOfTheApplication) {
  become(APPLICATION);
  EXPECT_THAT(running(), ElementsAre(::getpid()));
  EXPECT_THAT(running(), ElementsAre(::getpid())) << "asked again";
  EXPECT_TRUE(fs::exists(lockFile(::getpid())));
}

TEST_F(RunningApplications, DoNotHoldThisProcessWhenItIsOfAnother) {
  become(APPLICATION + ".longer");
  EXPECT_THAT(running(), IsEmpty());
  become("");
  EXPECT_THAT(running(), IsEmpty());
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(""), IsEmpty());
}

TEST_F(RunningApplications, HoldAnotherProcessWhileItRuns) {
  const auto child = start();
  EXPECT_THAT(running(), ElementsAre(child->identifier()));
  end.open();
  EXPECT_EQ(child->wait(), 0);
  EXPECT_THAT(running(), IsEmpty());
}

TEST_F(RunningApplications, HoldThisAndTheOthers) {
  const auto first = start();
  const auto second = start();
  become(APPLICATION);
  EXPECT_THAT(running(), UnorderedElementsAre(::getpid(), first->identifier(), second->identifier()));
}

TEST_F(RunningApplications, ForgetAProcessThatWasKilled) {
  const auto child = start();
  ASSERT_THAT(running(), ElementsAre(child->identifier()));
  ASSERT_TRUE(fs::exists(lockFile(child->identifier())));
  child->kill();
  EXPECT_THAT(running(), IsEmpty());
  EXPECT_FALSE(fs::exists(lockFile(child->identifier())));
}

TEST_F(RunningApplications, ForgetAProcessThatIsEndingWhileItsLockIsStillHeld) {
  // What a killed process holds is let go of one after another; here its lock is held on by a child of it.
  Gate leave;
  ChildProcess child([&] {
    become(APPLICATION);
    running();
    if (::fork() == 0) {
      leave.pass();
      ::_exit(0);
    }
    started.open();
    end.pass();
    return 0;
  });
  started.pass();
  EXPECT_THAT(running(), ElementsAre(child.identifier()));
  end.open();
  siginfo_t ended = {};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child.identifier()), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_THAT(running(), IsEmpty());
  leave.open();
}

TEST_F(RunningApplications, ForgetFilesThatNobodyHolds) {
  // Even one that bears the number of a process that runs.
  for (const std::int64_t process : {std::int64_t{1}, std::int64_t{999999999}}) test::writeFile(lockFile(process), "");
  EXPECT_THAT(running(), IsEmpty());
  EXPECT_FALSE(fs::exists(lockFile(1)));
  EXPECT_FALSE(fs::exists(lockFile(999999999)));
}

TEST_F(RunningApplications, TakeOverAFileThatAnEarlierProcessOfTheSameNumberLeft) {
  test::writeFile(lockFile(::getpid()), "");
  become(APPLICATION);
  EXPECT_THAT(running(), ElementsAre(::getpid()));
  Gate seen;
  ChildProcess child([&] {
    become("com.example.other");
    return running().size() == 1 ? 7 : 1;
  });
  EXPECT_EQ(child.wait(), 7);
}

TEST_F(RunningApplications, LeaveFilesWithOtherNamesAlone) {
  const auto place = lockFile(1).parent_path();
  for (const char* name : {"README", "12x", "x12", "1.5"}) test::writeFile(place / name, "");
  EXPECT_THAT(running(), IsEmpty());
  for (const char* name : {"README", "12x", "x12", "1.5"}) EXPECT_TRUE(fs::exists(place / name)) << name;
}

TEST_F(RunningApplications, CountExactlyOneAloneOfThoseThatStartAtOnce) {
  constexpr int PROCESSES = 5;
  for (int round = 0; round < 20; ++round) {
    const ScopedVariable own("XDG_RUNTIME_DIR", folder / std::to_string(round));
    Gate ready, start, counted, leave;
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < PROCESSES; ++i) {
      children.push_back(std::make_unique<ChildProcess>([&] {
        become(APPLICATION);
        ready.open();
        start.pass();
        const auto count = running().size();
        counted.open();
        leave.pass();
        return static_cast<int>(count);
      }));
    }
    ready.pass(PROCESSES);
    start.open();
    counted.pass(PROCESSES);
    leave.open();
    std::vector<int> counts;
    for (const auto& child : children) counts.push_back(child->wait());
    std::sort(counts.begin(), counts.end());
    ASSERT_THAT(counts, ElementsAre(1, 2, 3, 4, 5));
  }
}

TEST_F(RunningApplications, MayBeAskedByManyThreads) {
  const auto child = start();
  become(APPLICATION);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        EXPECT_THAT(running(), ElementsAre(::getpid(), child->identifier()));
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(RunningApplications, HoldThisProcessEvenWithoutARuntimeFolder) {
  test::writeFile(folder / "file", "");
  const ScopedVariable impossible("XDG_RUNTIME_DIR", folder / "file");
  EXPECT_THAT(running(), IsEmpty());
  become(APPLICATION);
  EXPECT_THAT(running(), ElementsAre(::getpid()));
}

TEST_F(RunningApplications, MeetInAPrivateFolderWhereTheSystemNamesNone) {
  const fs::path meeting = "/tmp/vornet-vi-runtime-" + std::to_string(::getuid());
  const bool existed = fs::exists(meeting);
  const std::string application = "com.example.test." + std::to_string(::getpid());
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("relative")}) {
    const ScopedVariable none("XDG_RUNTIME_DIR", value);
    ChildProcess child([&] {
      become(application);
      runningApplicationsWithBundleIdentifier(application);
      started.open();
      end.pass();
      return 0;
    });
    started.pass(++processes);
    EXPECT_THAT(runningApplicationsWithBundleIdentifier(application), ElementsAre(child.identifier()));
  }
  struct stat found;
  ASSERT_EQ(::lstat(meeting.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 077, 0u);
  EXPECT_EQ(found.st_uid, ::getuid());
  fs::remove_all(existed ? meeting / "vornet-vi" / "running" / application : meeting);
}

}  // namespace
}  // namespace vornet::platform
