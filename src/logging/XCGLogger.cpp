#include "logging/XCGLogger.hpp"

#include <algorithm>
#include <array>

#include "logging/DateFormatterCache.hpp"
#include "logging/LogDestinations.hpp"

namespace vornet {
namespace {

XCGLogDetails internalRecord(LogLevel level, platform::Date date, std::string message) {
  return {.logLevel = level, .date = date, .logMessage = std::move(message), .functionName = {}, .fileName = {}};
}

std::string buildText() {
  std::string text;
  if (const auto version = platform::bundleInfoText("CFBundleShortVersionString")) text = "Version: " + *version + " ";
  if (const auto build = platform::bundleInfoText("CFBundleVersion")) text += "Build: " + *build + " ";
  return text;
}

}  // namespace

XCGLogger::XCGLogger() {
  addLogDestination(
      std::make_shared<XCGConsoleLogDestination>(*this, std::string(constants::baseConsoleLogDestinationIdentifier)));
}

XCGLogger::~XCGLogger() = default;

void XCGLogger::setOutputLogLevel(LogLevel level) {
  outputLogLevel_ = level;
  for (const auto& destination : logDestinations_) destination->setOutputLogLevel(level);
}

platform::SerialQueue& XCGLogger::logQueue() {
  // Never destroyed, as other threads may log until the very end. Lines logged before the end are written, if
  // somebody reads them.
  static platform::SerialQueue& queue = *new platform::SerialQueue(std::string(constants::logQueueIdentifier));
  static const struct AtExit {
    ~AtExit() { queue.drain(constants::lastLinesAtMost); }
  } atExit;
  return queue;
}

platform::DateFormatter* XCGLogger::dateFormatter() const {
  return dateFormatterOfThread();
}

XCGLogger& XCGLogger::defaultInstance() {
  // Never destroyed: other threads may log until the very end.
  static XCGLogger& instance = []() -> XCGLogger& {
    auto& made = *new XCGLogger;
    made.setIdentifier(std::string(constants::defaultInstanceIdentifier));
    return made;
  }();
  return instance;
}

XCGLogger& XCGLogger::sharedInstance() {
  defaultInstance().info(
      "sharedInstance() has been renamed to defaultInstance() to better reflect that it is not a true singleton. "
      "Please update your code, sharedInstance() will be removed in a future version.",
      static_cast<const char*>(__func__), sourceFile(__FILE__), __LINE__);
  return defaultInstance();
}

void XCGLogger::setup(LogLevel level, bool showLogLevel, bool showFileNames, bool showLineNumbers,
                      const std::optional<FileTarget>& writeToFile) {
  setOutputLogLevel(level);

  const auto configure = [&](auto& destination) {
    destination.setShowLogLevel(showLogLevel);
    destination.setShowFileName(showFileNames);
    destination.setShowLineNumber(showLineNumbers);
    destination.setOutputLogLevel(level);
  };
  const Destination found = logDestination(constants::baseConsoleLogDestinationIdentifier);
  if (auto* console = dynamic_cast<XCGConsoleLogDestination*>(found.get())) configure(*console);

  logAppDetails();

  if (writeToFile) {
    auto file = std::make_shared<XCGFileLogDestination>(*this, *writeToFile,
                                                        std::string(constants::baseFileLogDestinationIdentifier));
    configure(*file);
    addLogDestination(std::move(file));
  }
}

void XCGLogger::logln(std::string_view message, LogLevel level, std::string_view functionName,
                      std::string_view fileName, std::int64_t lineNumber) {
  const platform::Date date = std::chrono::system_clock::now();
  std::optional<XCGLogDetails> details;
  for (const auto& destination : logDestinations_) {
    if (!destination->isEnabledForLogLevel(level)) continue;
    if (!details) {
      details = {.logLevel = level,
                 .date = date,
                 .logMessage = std::string(message),
                 .functionName = std::string(functionName),
                 .fileName = std::string(fileName),
                 .lineNumber = lineNumber};
    }
    destination->processLogDetails(*details);
  }
}

void XCGLogger::_logln(std::string_view message, LogLevel level) {
  const platform::Date date = std::chrono::system_clock::now();
  std::optional<XCGLogDetails> details;
  for (const auto& destination : logDestinations_) {
    if (!destination->isEnabledForLogLevel(level)) continue;
    if (!details) details = internalRecord(level, date, std::string(message));
    destination->processInternalLogDetails(*details);
  }
}

void XCGLogger::exec(LogLevel level, const std::function<void()>& closure) {
  if (isEnabledForLogLevel(level)) closure();
}

void XCGLogger::logAppDetails(XCGLogDestinationProtocol* selected) {
  const platform::Date date = std::chrono::system_clock::now();
  const std::array<XCGLogDetails, 2> records = {
      internalRecord(
          LogLevel::Info, date,
          platform::processName() + " " + buildText() + "PID: " + std::to_string(platform::processIdentifier())),
      internalRecord(LogLevel::Info, date,
                     "XCGLogger Version: " + std::string(constants::versionString) +
                         " - LogLevel: " + std::string(description(outputLogLevel_)))};
  const auto write = [&](XCGLogDestinationProtocol& destination) {
    for (const auto& record : records)
      if (destination.isEnabledForLogLevel(record.logLevel)) destination.processInternalLogDetails(record);
  };
  if (selected)
    write(*selected);
  else
    for (const auto& destination : logDestinations_) write(*destination);
}

bool XCGLogger::isWantedAtLogLevel(LogLevel level) const {
  return std::any_of(logDestinations_.begin(), logDestinations_.end(),
                     [level](const Destination& destination) { return destination->isEnabledForLogLevel(level); });
}

XCGLogger::Destination XCGLogger::logDestination(std::string_view identifier) const {
  const auto found = std::find_if(logDestinations_.begin(), logDestinations_.end(),
                                  [&](const Destination& d) { return d->identifier() == identifier; });
  return found == logDestinations_.end() ? nullptr : *found;
}

bool XCGLogger::addLogDestination(Destination destination) {
  if (logDestination(destination->identifier())) return false;
  logDestinations_.push_back(std::move(destination));
  return true;
}

void XCGLogger::removeLogDestination(const Destination& destination) {
  removeLogDestination(std::string(destination->identifier()));
}

void XCGLogger::removeLogDestination(std::string_view identifier) {
  std::erase_if(logDestinations_, [&](const Destination& d) { return d->identifier() == identifier; });
}

std::string XCGLogger::debugDescription() const {
  std::string text = "XCGLogger: " + identifier_ + " - logDestinations: \r";
  for (const auto& destination : logDestinations_) text += "\t " + destination->debugDescription() + "\r";
  return text;
}

// The entry points of the levels, for an instance and for the default instance.
#define VORNET_LEVEL_ENTRY(name, level)                                                                     \
  void XCGLogger::name(std::string_view message, std::string_view function, std::string_view file,          \
                       std::int64_t line) {                                                                 \
    logln(message, LogLevel::level, function, file, line);                                                  \
  }                                                                                                         \
  void XCGLogger::Default::name(std::string_view message, std::string_view function, std::string_view file, \
                                std::int64_t line) {                                                        \
    defaultInstance().name(message, function, file, line);                                                  \
  }
VORNET_LEVEL_ENTRY(verbose, Verbose)
VORNET_LEVEL_ENTRY(debug, Debug)
VORNET_LEVEL_ENTRY(info, Info)
VORNET_LEVEL_ENTRY(warning, Warning)
VORNET_LEVEL_ENTRY(error, Error)
VORNET_LEVEL_ENTRY(severe, Severe)
#undef VORNET_LEVEL_ENTRY

void XCGLogger::Default::logln(std::string_view message, LogLevel level, std::string_view functionName,
                               std::string_view fileName, std::int64_t line) {
  defaultInstance().logln(message, level, functionName, fileName, line);
}

void XCGLogger::Default::exec(LogLevel level, const std::function<void()>& closure) {
  defaultInstance().exec(level, closure);
}

}  // namespace vornet
