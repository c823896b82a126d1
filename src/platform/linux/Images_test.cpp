#include <gtest/gtest.h>

#include <filesystem>

#include "platform/AppKit.hpp"
#include "platform/linux/Host.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::platform {
namespace {

class ImagesTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {"first/16/both.png", "second/16/both.png", "second/16/second.png", "second/64/second.png",
                             "first/64/only large.png"}) {
      test::writeFile(folder / file, "image");
    }
    std::filesystem::create_directories(folder / "first/16/folder.png");
    host::setMainBundle(
        {.identifier = "", .version = "", .build = "", .imageFolders = {folder / "first", folder / "second"}});
  }
  test::TemporaryFolder folder;
};

TEST_F(ImagesTest, AreFoundByName) {
  const auto image = Image::named("both");
  ASSERT_TRUE(image);
  EXPECT_EQ(image->name(), "both");
  EXPECT_FALSE(image->isEmpty());
  EXPECT_TRUE(Image::named("second"));
}

TEST_F(ImagesTest, AreAbsentWhenNoFolderHoldsThem) {
  for (const char* name : {"missing", "", "both.png", "Both", "folder", "only large"})
    EXPECT_FALSE(Image::named(name)) << name;
}

TEST_F(ImagesTest, AreAbsentWithoutFolders) {
  host::setMainBundle({});
  EXPECT_FALSE(Image::named("both"));
  host::setMainBundle({.identifier = "", .version = "", .build = "", .imageFolders = {folder / "missing"}});
  EXPECT_FALSE(Image::named("both"));
}

TEST_F(ImagesTest, AreValues) {
  EXPECT_EQ(*Image::named("both"), *Image::named("both"));
  EXPECT_NE(*Image::named("both"), *Image::named("second"));
  EXPECT_NE(*Image::named("both"), Image());
  EXPECT_EQ(Image(), Image());
  EXPECT_TRUE(Image().isEmpty());
  EXPECT_EQ(Image().name(), "");
}

TEST_F(ImagesTest, HaveAFileForEachSizeFromTheFirstFolderThatHoldsIt) {
  EXPECT_EQ(host::imageFile("both", 16), folder / "first/16/both.png");
  EXPECT_EQ(host::imageFile("second", 16), folder / "second/16/second.png");
  EXPECT_EQ(host::imageFile("second", 64), folder / "second/64/second.png");
  EXPECT_EQ(host::imageFile("second", 32), "");
  for (const char* name : {"missing", "folder"}) EXPECT_EQ(host::imageFile(name, 16), "") << name;
}

}  // namespace
}  // namespace vornet::platform
