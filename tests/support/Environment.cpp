#include "support/Environment.hpp"

#include <sys/stat.h>

#include <cstdlib>

#include "base/AppConst.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::test {

namespace fs = std::filesystem;

ScopedVariable::ScopedVariable(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
  if (const char* before = std::getenv(name_.c_str())) before_ = before;
  if (value)
    ::setenv(name_.c_str(), value->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

ScopedVariable::~ScopedVariable() {
  if (before_)
    ::setenv(name_.c_str(), before_->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

Environment::Environment()
    : containers_("VORNET_GROUP_CONTAINERS", folder_ / "containers"),
      runtime_("XDG_RUNTIME_DIR", folder_ / "runtime"),
      home_("HOME", folder_ / "home"),
      data_("XDG_DATA_HOME", folder_ / "data"),
      locale_("LC_ALL", "C.UTF-8") {
  for (const char* name : {"containers", "runtime", "home", "data"}) {
    fs::create_directories(folder_ / name);
    ::chmod((folder_ / name).c_str(), 0700);
  }
  platform::host::setMainBundle(
      {.identifier = App().APP_CODENAME, .version = "1.0.0", .build = "1", .imageFolders = {VORNET_TEST_IMAGES}});
}

fs::path Environment::container() const {
  const auto path = fs::path(folder_ / "containers") / App().APP_GROUP;
  fs::create_directories(path);
  return path;
}

}  // namespace vornet::test
