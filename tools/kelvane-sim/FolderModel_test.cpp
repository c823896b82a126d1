#include "kelvane-sim/FolderModel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vornet::sim {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

std::map<std::string, std::optional<int>> taken(FolderModel& model) {
  std::map<std::string, std::optional<int>> changes;
  for (const auto& change : model.takeChanges())
    EXPECT_TRUE(changes.emplace(change.path, change.code).second) << change.path << " is told twice";
  return changes;
}

int codeOf(const FolderModel& model, const char* path) {
  const auto item = model.find(path);
  return item ? item->code : -1;
}

TEST(FolderModel, AnEmptyFolderIsSynced) {
  FolderModel model;
  model.putFolder("/a", true);
  EXPECT_EQ(codeOf(model, "/"), CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/a"), CODE_SYNCED);
}

TEST(FolderModel, AFolderHasTheWorstCodeBelowIt) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFolder("/a/b", true);
  model.putFile("/a/b/x", {}, CODE_SYNCED);
  model.putFile("/a/b/y", {}, CODE_PENDING);
  EXPECT_EQ(codeOf(model, "/a/b/"), CODE_PENDING);
  EXPECT_EQ(codeOf(model, "/"), CODE_PENDING);
  model.putFile("/a/z", {}, CODE_NOT_SYNCED);
  EXPECT_EQ(codeOf(model, "/a/b"), CODE_PENDING);
  EXPECT_EQ(codeOf(model, "/a"), CODE_NOT_SYNCED);
  EXPECT_EQ(codeOf(model, "/"), CODE_NOT_SYNCED);
  model.remove("/a/z");
  EXPECT_EQ(codeOf(model, "/"), CODE_PENDING);
  model.setFileCode("/a/b/y", CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/a/b"), CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/"), CODE_SYNCED);
}

TEST(FolderModel, AFolderThatCannotBeSyncedMakesThoseAboveNotSynced) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFolder("/a/b?", false);
  EXPECT_EQ(codeOf(model, "/a/b?"), CODE_NOT_SYNCED);
  EXPECT_EQ(codeOf(model, "/"), CODE_NOT_SYNCED);
}

TEST(FolderModel, ChangesTellEveryPathOnceWithFoldersEndingInASlash) {
  FolderModel model;
  taken(model);
  model.putFolder("/a", true);
  model.putFile("/a/x", {}, CODE_PENDING);
  EXPECT_THAT(taken(model),
              UnorderedElementsAre(Pair("/", CODE_PENDING), Pair("/a/", CODE_PENDING), Pair("/a/x", CODE_PENDING)));
  EXPECT_THAT(taken(model), IsEmpty());
  model.setFileCode("/a/x", CODE_SYNCED);
  EXPECT_THAT(taken(model),
              UnorderedElementsAre(Pair("/", CODE_SYNCED), Pair("/a/", CODE_SYNCED), Pair("/a/x", CODE_SYNCED)));
  EXPECT_THAT(model.remove("/a"), ElementsAre("/a/x"));
  EXPECT_THAT(taken(model), UnorderedElementsAre(Pair("/a/", std::nullopt), Pair("/a/x", std::nullopt)));
  EXPECT_EQ(model.size(), 0U);
}

TEST(FolderModel, AFileInPlaceOfAFolderReplacesTheRow) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFile("/a/x", {}, CODE_SYNCED);
  taken(model);
  model.putFile("/a", {}, CODE_SYNCED);
  EXPECT_THAT(taken(model),
              UnorderedElementsAre(Pair("/a/", std::nullopt), Pair("/a/x", std::nullopt), Pair("/a", CODE_SYNCED)));
  EXPECT_FALSE(model.find("/a/"));
  EXPECT_TRUE(model.find("/a"));
  EXPECT_EQ(model.size(), 1U);
}

TEST(FolderModel, ChildrenHaveNoTrailingSlash) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFolder("/a/sub", true);
  model.putFile("/a/x", {}, CODE_PENDING);
  EXPECT_THAT(*model.children("/a/"), ElementsAre(Pair("/a/sub", CODE_SYNCED), Pair("/a/x", CODE_PENDING)));
  EXPECT_THAT(*model.children("/"), ElementsAre(Pair("/a", CODE_PENDING)));
  EXPECT_FALSE(model.children("/a/x/"));
  EXPECT_FALSE(model.children("/b/"));
}

TEST(FolderModel, PathsThatNameNothingAreUnknown) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFile("/a/x", {}, CODE_SYNCED);
  for (const char* path : {"", "a", "//", "/a//", "/a//x", "/a/x/", "/a/../a", "/.", "/b"})
    EXPECT_FALSE(model.find(path)) << path;
}

TEST(FolderModel, ComposedAndDecomposedNamesAreDifferentItems) {
  FolderModel model;
  model.putFile("/\xC3\xA9", {}, CODE_PENDING);
  model.putFile("/e\xCC\x81", {}, CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/\xC3\xA9"), CODE_PENDING);
  EXPECT_EQ(codeOf(model, "/e\xCC\x81"), CODE_SYNCED);
  EXPECT_EQ(model.size(), 2U);
}

TEST(FolderModel, APinShowsThroughAndFoldersFollow) {
  FolderModel model;
  model.putFolder("/a", true);
  model.putFile("/a/x", {}, CODE_SYNCED);
  model.pin("/a/x", CODE_NOT_SYNCED);
  EXPECT_EQ(codeOf(model, "/a"), CODE_NOT_SYNCED);
  model.setFileCode("/a/x", CODE_PENDING);
  EXPECT_EQ(codeOf(model, "/a/x"), CODE_NOT_SYNCED);
  model.pin("/a/", CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/"), CODE_SYNCED);
  model.unpin("/a");
  model.unpin("/a/x");
  EXPECT_EQ(codeOf(model, "/"), CODE_PENDING);
  model.pin("/a/x", 7);
  EXPECT_EQ(codeOf(model, "/a/x"), 7);
  EXPECT_EQ(codeOf(model, "/a"), CODE_SYNCED);
}

TEST(FolderModel, APinWaitsForItsItem) {
  FolderModel model;
  model.pin("/x", CODE_NOT_SYNCED);
  EXPECT_FALSE(model.find("/x"));
  model.putFile("/x", {}, CODE_SYNCED);
  EXPECT_EQ(codeOf(model, "/x"), CODE_NOT_SYNCED);
  EXPECT_EQ(codeOf(model, "/"), CODE_NOT_SYNCED);
}

TEST(FolderModel, NothingIsAddedBelowAnUnknownFolderOrAFile) {
  FolderModel model;
  EXPECT_FALSE(model.putFile("/a/x", {}, CODE_SYNCED));
  model.putFile("/f", {}, CODE_SYNCED);
  EXPECT_FALSE(model.putFolder("/f/x", true));
  EXPECT_EQ(model.size(), 1U);
}

}  // namespace
}  // namespace vornet::sim
