#include "kelvane-sim/Container.hpp"

#include <gmock/gmock.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/Databases.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::sim {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class ContainerTest : public testing::Test {
 protected:
  ContainerTest() { fs::create_directories(root_); }

  /// The rows of a query with two columns, as another process reads them.
  std::map<std::string, int> query(const std::string& name, const std::string& sql) const {
    std::map<std::string, int> rows;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2((path_ + name).c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    const auto take = [](void* into, int, char** values, char**) {
      static_cast<std::map<std::string, int>*>(into)->emplace(values[0], std::atoi(values[1]));
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), take, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return rows;
  }
  std::map<std::string, int> statuses() const { return query("/sync.db", "SELECT path, status FROM ea"); }

  std::string whyNot(Container container) const {
    try {
      container.open();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "opened";
  }

  test::TemporaryFolder disk_;
  const std::string root_ = disk_ / "root", path_ = disk_ / "new/container";
};

TEST_F(ContainerTest, TheStatusDatabaseHasExactlyTheRowsWrittenLast) {
  Container container(path_, root_);
  container.open();
  container.writeStatuses({{"/", 1}, {"/old", 2}, {"/it's \"x\"%_", 0}});
  container.writeStatuses({{"/", 2}, {"/it's \"x\"%_", 0}, {"/caf\xC3\xA9", -1}, {"/cafe\xCC\x81", 7}});
  const std::map<std::string, int> rows{{"/", 2}, {"/it's \"x\"%_", 0}, {"/caf\xC3\xA9", -1}, {"/cafe\xCC\x81", 7}};
  EXPECT_EQ(statuses(), rows);
  Container next(path_, root_);
  next.open();
  next.writeStatuses({{"/", 1}});
  EXPECT_THAT(statuses(), ElementsAre(Pair("/", 1)));
}

TEST_F(ContainerTest, AWriteHeldUpByAReaderCanBeDoneAgain) {
  Container container(path_, root_);
  container.open();
  container.writeStatuses({{"/a", 1}});
  {
    test::Database reader(path_ + "/sync.db");
    reader.run("BEGIN; SELECT * FROM ea");
    EXPECT_THROW(container.writeStatuses({{"/a", 2}}), std::runtime_error);
  }
  EXPECT_THAT(statuses(), ElementsAre(Pair("/a", 1)));
  container.writeStatuses({{"/a", 2}});
  EXPECT_THAT(statuses(), ElementsAre(Pair("/a", 2)));
}

TEST_F(ContainerTest, AnyRootReadsBackUnchanged) {
  for (const std::string name : {"Kelvane", "a & b<c>\"'", "caf\xC3\xA9", "cafe\xCC\x81", "line\nbreak\x01"}) {
    const std::string root = disk_ / name;
    fs::create_directories(root);
    Container container(path_ + "/./", disk_ / "." + "/" + name + "//");
    container.open();
    container.writePreferences();
    EXPECT_THAT(query("/config.db", "SELECT local_root, 1 FROM configuration"), ElementsAre(Pair(root, 1)));
    const std::string bytes = readFile(path_ + "/VornetKelvane.plist");
    plist_t dictionary = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &dictionary);
    char* text = nullptr;
    plist_get_string_val(plist_dict_get_item(dictionary, "root_dir"), &text);
    EXPECT_EQ(text ? std::string(text) : "(no text)", root);
    std::free(text);
    plist_free(dictionary);
  }
  EXPECT_FALSE(fs::exists(path_ + "/VornetKelvane.plist.new"));
}

TEST_F(ContainerTest, ActionsAreLinesOfJson) {
  Container container(path_, root_);
  container.open();
  container.record({"2", "Copy Link", {"/a\nb", "/\"q\""}});
  container.record({"1", "Share", {"/b", "/b"}});
  EXPECT_EQ(readFile(path_ + "/actions.jsonl"),
            "{\"action\":\"Copy Link\",\"paths\":[\"/a\\nb\",\"/\\\"q\\\"\"]}\n"
            "{\"action\":\"Share\",\"paths\":[\"/b\",\"/b\"]}\n");
  fs::remove_all(path_);
  EXPECT_THROW(container.record({"1", "Share", {"/b"}}), std::runtime_error);
}

TEST_F(ContainerTest, IsPrivate) {
  Container(path_, root_).open();
  struct stat info{};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0700U);
}

TEST_F(ContainerTest, FilesOfAnotherApplicationAreLeftAlone) {
  for (const std::string name : {"sync.db", "config.db", "VornetKelvane.plist"}) {
    const std::string path = path_ + "/" + name;
    fs::create_directories(path_);
    if (name == "VornetKelvane.plist")
      test::writePreferences(path, root_);
    else
      test::makeSyncDatabase(path, {{"/theirs", 2}});
    const std::string before = readFile(path);
    EXPECT_EQ(whyNot({path_, root_}),
              path + " was written by another application: choose another container, or --force");
    EXPECT_EQ(readFile(path), before);
    fs::remove(path);
    fs::create_symlink("nothing", path);
    EXPECT_THAT(whyNot({path_, root_}), HasSubstr("another application"));
    fs::remove(path);
    writeFile(path, "");  // as an interrupted start leaves it
    EXPECT_EQ(whyNot({path_, root_}), "opened");
    fs::remove(path);
  }
  Container own(path_, root_);
  own.open();
  own.writeStatuses({{"/", 2}});
  own.writePreferences();
  EXPECT_EQ(whyNot({path_, root_}), "opened");
}

TEST_F(ContainerTest, UnusableFoldersAreRefused) {
  EXPECT_EQ(whyNot({path_, disk_ / "missing"}), "cannot sync " + disk_ / "missing" + ": it is not a folder");
  fs::create_directories(disk_ / "bad\xFF");
  EXPECT_THAT(whyNot({path_, disk_ / "bad\xFF"}), HasSubstr("not UTF-8"));
  EXPECT_THAT(whyNot({path_, "/"}), HasSubstr("inside the synced folder"));
  EXPECT_THAT(whyNot({root_ + "/inside", root_}), HasSubstr("inside the synced folder"));
  fs::create_directory_symlink(root_, disk_ / "alias");
  EXPECT_THAT(whyNot({disk_ / "alias/inside", root_}), HasSubstr("inside the synced folder"));
  EXPECT_TRUE(fs::is_empty(root_));
  writeFile(disk_ / "file", "");
  EXPECT_THAT(whyNot({disk_ / "file/container", root_}), HasSubstr("Not a directory"));
}

}  // namespace
}  // namespace vornet::sim
