#include "support/LogRecorder.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "logging/Logging.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

class LogRecorder::Destination : public XCGLogDestinationProtocol {
 public:
  Destination(XCGLogger& owner, LogLevel level, Echo echo) : owner_(&owner), level_(level), echo_(echo) {}

  XCGLogger& owner() const override { return *owner_; }
  void setOwner(XCGLogger& owner) override { owner_ = &owner; }
  const std::string& identifier() const override { return identifier_; }
  void setIdentifier(std::string identifier) override { identifier_ = std::move(identifier); }
  LogLevel outputLogLevel() const override { return level_; }
  void setOutputLogLevel(LogLevel) override {}  // a test sees every level, whatever the logger is set to
  bool isEnabledForLogLevel(LogLevel level) const override { return level >= level_; }
  std::string debugDescription() const override { return "LogRecorder"; }
  void processLogDetails(const XCGLogDetails& details) override {
    if (echo_ == Echo::toStandardError)
      std::fprintf(stderr, "<%s> %s\n", std::string(description(details.logLevel)).c_str(), details.logMessage.c_str());
    const std::lock_guard guard(lock);
    records.push_back(details);
    changed.notify_all();
  }
  void processInternalLogDetails(const XCGLogDetails& details) override { processLogDetails(details); }

  std::size_t count(LogLevel level, std::string_view message) const {
    return static_cast<std::size_t>(std::count_if(records.begin(), records.end(), [&](const auto& record) {
      return record.logLevel == level && record.logMessage == message;
    }));
  }

  std::mutex lock;
  std::condition_variable changed;
  std::vector<XCGLogDetails> records;

 private:
  XCGLogger* owner_;
  std::string identifier_ = "com.vornet.test.recorder";
  const LogLevel level_;
  const Echo echo_;
};

LogRecorder::LogRecorder(LogLevel level, Echo echo)
    : destination_(std::make_shared<Destination>(logger(), level, echo)) {
  if (const auto console = logger().logDestination(XCGLogger::constants::baseConsoleLogDestinationIdentifier))
    console->setOutputLogLevel(LogLevel::None);
  logger().addLogDestination(destination_);
}

LogRecorder::~LogRecorder() {
  logger().removeLogDestination(destination_);
}

std::vector<XCGLogDetails> LogRecorder::records() const {
  const std::lock_guard guard(destination_->lock);
  return destination_->records;
}

std::vector<std::string> LogRecorder::messages() const {
  std::vector<std::string> texts;
  for (const auto& record : records()) texts.push_back(record.logMessage);
  return texts;
}

std::vector<std::string> LogRecorder::messages(LogLevel level) const {
  std::vector<std::string> texts;
  for (const auto& record : records())
    if (record.logLevel == level) texts.push_back(record.logMessage);
  return texts;
}

std::size_t LogRecorder::count(LogLevel level, std::string_view message) const {
  const std::lock_guard guard(destination_->lock);
  return destination_->count(level, message);
}

bool LogRecorder::waitFor(LogLevel level, std::string_view message, std::size_t times) const {
  std::unique_lock guard(destination_->lock);
  return destination_->changed.wait_for(guard, PATIENCE, [&] { return destination_->count(level, message) >= times; });
}

void LogRecorder::clear() {
  const std::lock_guard guard(destination_->lock);
  destination_->records.clear();
}

}  // namespace vornet::test
