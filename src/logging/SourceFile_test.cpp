#include "logging/SourceFile.hpp"

#include <gtest/gtest.h>

namespace vornet {
namespace {

TEST(SourceFile, DropsTheExtension) {
  EXPECT_EQ(sourceFile("src/logging/Logging.cpp"), "src/logging/Logging");
  EXPECT_EQ(sourceFile("Logging.cpp"), "Logging");
}

TEST(SourceFile, DropsTheLastExtensionOnly) {
  EXPECT_EQ(sourceFile("src/Logging.test.cpp"), "src/Logging.test");
}

TEST(SourceFile, KeepsANameWithoutExtension) {
  EXPECT_EQ(sourceFile("src/Logging"), "src/Logging");
  EXPECT_EQ(sourceFile("src.d/Logging"), "src.d/Logging");
  EXPECT_EQ(sourceFile(""), "");
}

TEST(SourceFile, KeepsANameThatBeginsWithADot) {
  EXPECT_EQ(sourceFile("src/.hidden"), "src/.hidden");
  EXPECT_EQ(sourceFile(".hidden"), ".hidden");
}

}  // namespace
}  // namespace vornet
