#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/Foundation.hpp"
#include "support/CapturedOutput.hpp"

namespace vornet::platform {
namespace {

class ProcessTest : public testing::Test {
 protected:
  ProcessTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};
using ProcessDeathTest = ProcessTest;

TEST_F(ProcessDeathTest, FatalErrorAbortsWithItsReasonOnStandardError) {
  EXPECT_EXIT(fatalError("this cannot be: 100%s"), testing::KilledBySignal(SIGABRT),
              "Fatal error: this cannot be: 100%s\n");
  EXPECT_EXIT(fatalError(std::string_view("not all of it", 7)), testing::KilledBySignal(SIGABRT),
              "Fatal error: not all\n");
}

/// Stops the process, with this handler of the reason.
[[noreturn]] void stopWith(FatalErrorHandler handler) {
  setFatalErrorHandler(handler);
  fatalError("a reason");
}

TEST_F(ProcessDeathTest, FatalErrorCallsTheHandlerWithTheReason) {
  const FatalErrorHandler tells = [](std::string_view reason) noexcept {
    std::fprintf(stderr, "told: %.*s\n", static_cast<int>(reason.size()), reason.data());
  };
  EXPECT_EXIT(stopWith(tells), testing::KilledBySignal(SIGABRT), "told: a reason\nFatal error: a reason\n");
}

TEST_F(ProcessDeathTest, FatalErrorStopsTheProcessWhateverTheHandlerDoes) {
  const FatalErrorHandler stopsAgain = [](std::string_view) noexcept { fatalError("again"); };
  const FatalErrorHandler neverReturns = [](std::string_view) noexcept {
    while (true) ::pause();
  };
  for (const auto handler : {stopsAgain, neverReturns})
    EXPECT_EXIT(stopWith(handler), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ProcessDeathTest, ExitProcessEndsInAnOrderlyWay) {
  EXPECT_EXIT(
      {
        std::atexit([] { std::fputs("cleaned up", stderr); });
        exitProcess(0);
      },
      testing::ExitedWithCode(0), "cleaned up");
  EXPECT_EXIT(exitProcess(3), testing::ExitedWithCode(3), "");
}

TEST_F(ProcessTest, SystemLogReachesStandardErrorAlone) {
  test::CapturedOutput errors(STDERR_FILENO);
  test::CapturedOutput output(STDOUT_FILENO);
  systemLog("VornetVIExt already running");
  systemLog("100%s %n ü");
  systemLog(std::string_view("not all of it", 7));
  EXPECT_EQ(output.finish(), "");
  const std::string start = std::string(program_invocation_short_name) + "[" + std::to_string(::getpid()) + "]: ";
  EXPECT_EQ(errors.finish(), start + "VornetVIExt already running\n" + start + "100%s %n ü\n" + start + "not all\n");
}

TEST_F(ProcessTest, NameIsTheProgramsFileName) {
  EXPECT_EQ(processName(), std::filesystem::read_symlink("/proc/self/exe").filename().string());
  EXPECT_EQ(processName(), "vornet_platform_test");
}

TEST_F(ProcessTest, IdentifierIsTheSystems) {
  EXPECT_EQ(processIdentifier(), ::getpid());
}

TEST_F(ProcessTest, AutoreleasePoolsNest) {
  const AutoreleasePool outer;
  const AutoreleasePool inner;
}

}  // namespace
}  // namespace vornet::platform
