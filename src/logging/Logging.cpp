#include "logging/Logging.hpp"

#include "base/AppConst.hpp"

namespace vornet {

XCGLogger& logger() {
  return XCGLogger::defaultInstance();
}

const std::map<std::string, LogLevel, std::less<>>& logMap() {
  static const std::map<std::string, LogLevel, std::less<>> map = {{"DEBUG", LogLevel::Debug},
                                                                   {"INFO", LogLevel::Info},
                                                                   {"WARNING", LogLevel::Warning},
                                                                   {"ERROR", LogLevel::Error},
                                                                   {"CRITICAL", LogLevel::Severe}};
  return map;
}

// Log lines show the line numbers 29, 34 and 37; Logging_test.cpp checks them.
void setupLogger(const std::string& level) {
  if (const auto found = logMap().find(level); found != logMap().end()) {
    const auto container = platform::containerURLForGroup(App().APP_GROUP);
    if (!container) platform::fatalError("no group container for the log");
    const auto directory = container->appendingPathComponent("log");
    const auto file = directory.appendingPathComponent(App().LOG_FILE).path();
    if (!file) platform::fatalError("the log file has no path");
    if (const auto error = platform::createDirectory(*directory.path())) {
      VI_WARNING("Error creating log dir: " + *error);
      return platform::systemLog("Error creating log dir: " + *error);
    }
    logger().setup(found->second, true, true, false, *file);
    platform::setFatalErrorHandler(&logFatalError);
    VI_INFO("Logger initialized on level: " + level);
    return;
  }
  VI_WARNING("Error setting log level: " + level);
}

void logFatalError(std::string_view reason) noexcept {
  try {
    logger()._logln("Fatal error: " + std::string(reason), LogLevel::Severe);
  } catch (...) {
    return;  // the reason is also written elsewhere
  }
}

}  // namespace vornet
