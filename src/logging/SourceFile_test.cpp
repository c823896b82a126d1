#include "logging/LogDestination.hpp"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace vornet {
namespace {

TEST(SourceFile, LosesItsExtension) {
  for (const auto& [file, shown] :
       std::vector<std::pair<const char*, const char*>>{{"src/logging/Logging.cpp", "src/logging/Logging"},
                                                        {"Logging.cpp", "Logging"},
                                                        {"src/Logging.test.cpp", "src/Logging.test"},
                                                        {"src/Logging", "src/Logging"},
                                                        {"src.d/Logging", "src.d/Logging"},
                                                        {"", ""},
                                                        {"src/.hidden", "src/.hidden"},
                                                        {".hidden", ".hidden"}})
    EXPECT_EQ(sourceFile(file), shown);
}

}  // namespace
}  // namespace vornet
