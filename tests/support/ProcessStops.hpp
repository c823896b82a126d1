#pragma once

#include <gtest/gtest.h>

#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"

namespace vornet::test {

/// A fixture for tests in which a process stops. The test runs again in a child process, where nothing is cleaned up:
/// the child's temporary folders are in a folder of the parent, which removes them.
class ProcessStops : public ::testing::Test {
 protected:
  ProcessStops() : temporary_("TMPDIR", folder_.path().string()) { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

 private:
  TemporaryFolder folder_;
  ScopedVariable temporary_;
};

}  // namespace vornet::test
