#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "logging/Logging.hpp"
#include "support/Environment.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::test {

/// While it lives, writes each of the logger's records to standard error as "<Level> message": for tests of what a
/// process says before it stops.
class StandardErrorLog {
 public:
  StandardErrorLog() { logger().addLogDestination(destination_); }
  ~StandardErrorLog() { logger().removeLogDestination(destination_); }
  StandardErrorLog(const StandardErrorLog&) = delete;
  StandardErrorLog& operator=(const StandardErrorLog&) = delete;

 private:
  class Destination : public XCGLogDestinationProtocol {
   public:
    XCGLogger& owner() const override { return logger(); }
    void setOwner(XCGLogger&) override {}
    const std::string& identifier() const override { return identifier_; }
    void setIdentifier(std::string identifier) override { identifier_ = std::move(identifier); }
    LogLevel outputLogLevel() const override { return LogLevel::Verbose; }
    void setOutputLogLevel(LogLevel) override {}
    bool isEnabledForLogLevel(LogLevel) const override { return true; }
    void processLogDetails(const XCGLogDetails& details) override {
      const std::string level(description(details.logLevel));
      std::fprintf(stderr, "<%s> %s\n", level.c_str(), details.logMessage.c_str());
    }
    void processInternalLogDetails(const XCGLogDetails& details) override { processLogDetails(details); }
    std::string debugDescription() const override { return "StandardErrorLog"; }

   private:
    std::string identifier_ = "com.vornet.test.standard-error";
  };

  std::shared_ptr<Destination> destination_ = std::make_shared<Destination>();
};

/// A fixture for tests in which a process stops. The test runs again in a child process, where nothing is cleaned up:
/// whatever temporary folders the child makes lie in a folder of the parent's, which removes them.
class ProcessStops : public ::testing::Test {
 protected:
  ProcessStops() : temporary_("TMPDIR", folder_.path().string()) { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

 private:
  TemporaryFolder folder_;
  ScopedVariable temporary_;
};

}  // namespace vornet::test
