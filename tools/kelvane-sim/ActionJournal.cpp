#include "kelvane-sim/ActionJournal.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <boost/json.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "kelvane-sim/FileDescriptor.hpp"

namespace vornet::sim {

namespace json = boost::json;

ActionJournal::ActionJournal(const std::string& state) : path_(state + "/" + FILE_NAME) {}

void ActionJournal::append(const Action& action) const {
  const std::string line = json::serialize(json::object{{"time", action.time},
                                                        {"uid", action.uid},
                                                        {"action", action.name},
                                                        {"paths", json::value_from(action.paths)}}) +
                           "\n";
  const FileDescriptor file(::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!file || ::write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("cannot write " + path_ + ": " + std::generic_category().message(errno));
}

std::vector<Action> ActionJournal::read() const {
  std::vector<Action> actions;
  std::ifstream file(path_);
  if (!file) {
    if (std::error_code error; !std::filesystem::exists(path_, error) && !error) return actions;
    throw std::runtime_error("cannot read " + path_);
  }
  for (std::string line; std::getline(file, line);) {
    boost::system::error_code error;
    const json::value parsed = json::parse(line, error);
    const auto* object = error ? nullptr : parsed.if_object();
    if (object == nullptr) continue;
    const auto text = [&](const char* key) {
      const auto* value = object->if_contains(key);
      const auto* string = value != nullptr ? value->if_string() : nullptr;
      return string != nullptr ? std::string(*string) : std::string();
    };
    Action action{text("time"), text("uid"), text("action"), {}};
    if (const auto* paths = object->if_contains("paths"); paths != nullptr && paths->is_array()) {
      for (const json::value& path : paths->get_array())
        if (path.is_string()) action.paths.emplace_back(path.get_string());
    }
    actions.push_back(std::move(action));
  }
  return actions;
}

std::string timeNow() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 32> date{};
  std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%s.%03dZ", date.data(), static_cast<int>(milliseconds));
  return text.data();
}

}  // namespace vornet::sim
