#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "platform/AppKit.hpp"
#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(Bundle, SaysNothingBeforeItIsSet) {
  for (const char* key : {"CFBundleIdentifier", "CFBundleShortVersionString", "CFBundleVersion"})
    EXPECT_EQ(bundleInfoText(key), std::nullopt) << key;
  EXPECT_TRUE(host::mainBundle().imageFolders.empty());
}

TEST(Bundle, GivesTheTextsThatWereSet) {
  host::setMainBundle({.identifier = "com.example.app", .version = "1.2", .build = "34", .imageFolders = {"/images"}});
  EXPECT_EQ(bundleInfoText("CFBundleIdentifier"), "com.example.app");
  EXPECT_EQ(bundleInfoText("CFBundleShortVersionString"), "1.2");
  EXPECT_EQ(bundleInfoText("CFBundleVersion"), "34");
  EXPECT_EQ(host::mainBundle().imageFolders, std::vector<std::string>{"/images"});
}

TEST(Bundle, LacksEmptyTextsAndUnknownKeys) {
  host::setMainBundle({.identifier = "com.example.app", .version = "", .build = "", .imageFolders = {}});
  for (const char* key : {"CFBundleShortVersionString", "CFBundleVersion", "CFBundleName", ""})
    EXPECT_EQ(bundleInfoText(key), std::nullopt) << key;
}

TEST(RunningApplications, AreThisProcessAndThoseThatWereSet) {
  constexpr std::string_view APPLICATION = "com.example.app";
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(APPLICATION), IsEmpty());
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(""), IsEmpty());
  host::setMainBundle({.identifier = std::string(APPLICATION), .version = "", .build = "", .imageFolders = {}});
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(APPLICATION), ElementsAre(::getpid()));
  host::setOtherRunningApplications({7, 8});
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(APPLICATION), UnorderedElementsAre(::getpid(), 7, 8));
  EXPECT_THAT(runningApplicationsWithBundleIdentifier("com.example.app.longer"), IsEmpty());
  EXPECT_THAT(runningApplicationsWithBundleIdentifier(""), IsEmpty());
}

TEST(Bundle, FindsImageFoldersBesideTheProgramsFolder) {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_THAT(host::imageFoldersOfProgram(),
              ElementsAre(program.parent_path().parent_path() / "share/vornet-vi/images"));
}

}  // namespace
}  // namespace vornet::platform
