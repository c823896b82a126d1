#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/Foundation.hpp"
#include "support/Environment.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using test::ScopedVariable;

class GroupContainer : public testing::Test {
 protected:
  std::string at(std::string_view name) const { return folder / name; }

  test::TemporaryFolder folder;
  ScopedVariable home{"HOME", folder / "home"};
  ScopedVariable data{"XDG_DATA_HOME", std::nullopt};
  ScopedVariable containers{"VORNET_GROUP_CONTAINERS", std::nullopt};
};

TEST_F(GroupContainer, IsWhereItsOwnVariableSays) {
  const ScopedVariable both("XDG_DATA_HOME", at("data"));
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  EXPECT_EQ(containerURLForGroup("com.example.group"), FileURL::fileURLWithPath(at("own/com.example.group")));
  EXPECT_TRUE(fs::is_directory(at("own/com.example.group")));
  EXPECT_FALSE(fs::exists(at("data")));
  EXPECT_FALSE(fs::exists(at("home")));
}

TEST_F(GroupContainer, IsInTheDataFolderOtherwise) {
  const ScopedVariable set("XDG_DATA_HOME", at("data"));
  EXPECT_EQ(containerURLForGroup("g"), FileURL::fileURLWithPath(at("data/group-containers/g")));
  EXPECT_TRUE(fs::is_directory(at("data/group-containers/g")));
}

TEST_F(GroupContainer, IsBelowTheHomeFolderOtherwise) {
  EXPECT_EQ(containerURLForGroup("g"), FileURL::fileURLWithPath(at("home/.local/share/group-containers/g")));
  EXPECT_TRUE(fs::is_directory(at("home/.local/share/group-containers/g")));
}

TEST_F(GroupContainer, PassesOverVariablesThatAreNotAbsolutePaths) {
  for (const char* value : {"", "relative/folder", "~", "."}) {
    const ScopedVariable own("VORNET_GROUP_CONTAINERS", value);
    const ScopedVariable set("XDG_DATA_HOME", at("data"));
    EXPECT_EQ(containerURLForGroup("g")->path(), at("data/group-containers/g"));
    const ScopedVariable dataToo("XDG_DATA_HOME", value);
    EXPECT_EQ(containerURLForGroup("g")->path(), at("home/.local/share/group-containers/g"));
  }
}

TEST_F(GroupContainer, IsMadeForItsOwnerAlone) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  const auto before = ::umask(0);
  const auto url = containerURLForGroup("g");
  ::umask(before);
  ASSERT_TRUE(url);
  struct stat found;
  ASSERT_EQ(::stat(url->path()->c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0700u);
}

TEST_F(GroupContainer, IsADirectoryInItsDescription) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  EXPECT_EQ(containerURLForGroup("g")->description(), "file://" + at("own/g/"));
}

TEST_F(GroupContainer, IsKeptWhenItExists) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  test::writeFile(at("own/g/kept"), "x");
  fs::permissions(at("own/g"), fs::perms(0750));
  EXPECT_TRUE(containerURLForGroup("g"));
  EXPECT_TRUE(containerURLForGroup("g"));
  EXPECT_EQ(test::readFile(at("own/g/kept")), "x");
  EXPECT_EQ(fs::status(at("own/g")).permissions(), fs::perms(0750));
}

TEST_F(GroupContainer, IsNotMadeAgainWhenSomebodyRemovesIt) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  ASSERT_TRUE(containerURLForGroup("g"));
  fs::remove_all(at("own"));
  EXPECT_EQ(containerURLForGroup("g")->path(), at("own/g"));
  EXPECT_FALSE(fs::exists(at("own")));
  ASSERT_TRUE(containerURLForGroup("other")) << "which this process has not had";
  EXPECT_FALSE(fs::exists(at("own/g")));
}

TEST_F(GroupContainer, MayBeALinkToAFolder) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  fs::create_directories(at("own"));
  fs::create_directories(at("elsewhere"));
  fs::create_symlink(at("elsewhere"), at("own/g"));
  EXPECT_EQ(containerURLForGroup("g")->path(), at("own/g"));
}

TEST_F(GroupContainer, IsAbsentWhereItCannotBe) {
  test::writeFile(at("file"), "");
  test::writeFile(at("own/taken"), "");
  fs::create_symlink("nothing", at("own/dangling"));
  {
    const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("file"));
    EXPECT_FALSE(containerURLForGroup("g"));
  }
  {
    const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("file/below"));
    EXPECT_FALSE(containerURLForGroup("g"));
  }
  {
    const ScopedVariable own("VORNET_GROUP_CONTAINERS", "/proc/self");
    EXPECT_FALSE(containerURLForGroup("g"));
  }
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  EXPECT_FALSE(containerURLForGroup("taken"));
  EXPECT_FALSE(containerURLForGroup("dangling"));
}

TEST_F(GroupContainer, IsAbsentForAGroupWithoutName) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  EXPECT_FALSE(containerURLForGroup(""));
  EXPECT_FALSE(fs::exists(at("own")));
}

TEST_F(GroupContainer, IsOneForEachGroup) {
  const ScopedVariable own("VORNET_GROUP_CONTAINERS", at("own"));
  EXPECT_NE(containerURLForGroup("a"), containerURLForGroup("b"));
}

}  // namespace
}  // namespace vornet::platform
