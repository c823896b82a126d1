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
  ScopedVariable data{"XDG_DATA_HOME", folder / "data"};
  ScopedVariable own{"VORNET_GROUP_CONTAINERS", folder / "own"};
};

/// The path of the container of `group`, which is a folder then.
std::string pathOfContainer(std::string_view group) {
  const auto path = containerURLForGroup(group).value().path().value();
  EXPECT_TRUE(fs::is_directory(path)) << path;
  return path;
}

TEST_F(GroupContainer, IsWhereItsOwnVariableSays) {
  EXPECT_EQ(pathOfContainer("com.example.group"), at("own/com.example.group"));
  EXPECT_EQ(pathOfContainer("another"), at("own/another"));
  EXPECT_FALSE(fs::exists(at("data")));
  EXPECT_FALSE(fs::exists(at("home")));
}

TEST_F(GroupContainer, IsInTheDataFolderThenBelowTheHomeFolderWhereVariablesAreNoAbsolutePaths) {
  for (const auto& value : std::vector<std::optional<std::string>>{std::nullopt, "", "relative/folder", "~", "."}) {
    SCOPED_TRACE(value.value_or("not set"));
    const ScopedVariable notOwn("VORNET_GROUP_CONTAINERS", value);
    EXPECT_EQ(pathOfContainer("g"), at("data/group-containers/g"));
    const ScopedVariable noData("XDG_DATA_HOME", value);
    EXPECT_EQ(pathOfContainer("g"), at("home/.local/share/group-containers/g"));
  }
}

TEST_F(GroupContainer, IsMadeForItsOwnerAlone) {
  const auto before = ::umask(0);
  const auto url = containerURLForGroup("g");
  ::umask(before);
  ASSERT_TRUE(url);
  EXPECT_EQ(fs::status(*url->path()).permissions(), fs::perms::owner_all);
}

TEST_F(GroupContainer, IsADirectoryInItsDescription) {
  EXPECT_EQ(containerURLForGroup("g")->description(), "file://" + at("own/g/"));
}

TEST_F(GroupContainer, IsKeptWhenItExists) {
  test::writeFile(at("own/g/kept"), "x");
  fs::permissions(at("own/g"), fs::perms(0750));
  EXPECT_TRUE(containerURLForGroup("g"));
  EXPECT_TRUE(containerURLForGroup("g"));
  EXPECT_EQ(test::readFile(at("own/g/kept")), "x");
  EXPECT_EQ(fs::status(at("own/g")).permissions(), fs::perms(0750));
}

TEST_F(GroupContainer, IsNotMadeAgainWhenSomebodyRemovesIt) {
  ASSERT_TRUE(containerURLForGroup("g"));
  fs::remove_all(at("own"));
  EXPECT_EQ(containerURLForGroup("g")->path(), at("own/g"));
  EXPECT_FALSE(fs::exists(at("own")));
  ASSERT_TRUE(containerURLForGroup("other")) << "which this process has not had";
  EXPECT_FALSE(fs::exists(at("own/g")));
}

TEST_F(GroupContainer, MayBeALinkToAFolder) {
  fs::create_directories(at("own"));
  fs::create_directories(at("elsewhere"));
  fs::create_symlink(at("elsewhere"), at("own/g"));
  EXPECT_EQ(containerURLForGroup("g")->path(), at("own/g"));
}

TEST_F(GroupContainer, IsAbsentWhereItCannotBe) {
  test::writeFile(at("file"), "");
  test::writeFile(at("own/taken"), "");
  fs::create_symlink("nothing", at("own/dangling"));
  for (const std::string& elsewhere : {at("file"), at("file/below"), std::string("/proc/self")}) {
    const ScopedVariable notOwn("VORNET_GROUP_CONTAINERS", elsewhere);
    EXPECT_FALSE(containerURLForGroup("g")) << elsewhere;
  }
  EXPECT_FALSE(containerURLForGroup("taken"));
  EXPECT_FALSE(containerURLForGroup("dangling"));
}

TEST_F(GroupContainer, IsAbsentForAGroupWithoutName) {
  EXPECT_FALSE(containerURLForGroup(""));
  EXPECT_FALSE(fs::exists(at("own")));
}

}  // namespace
}  // namespace vornet::platform
