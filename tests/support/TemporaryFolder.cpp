#include "support/TemporaryFolder.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vornet::test {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
  std::string name = (fs::temp_directory_path() / "vornet-test-XXXXXX").string();
  if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code error;
  // Tests take rights away from folders; give them back before removing.
  for (auto entry = fs::recursive_directory_iterator(path_, fs::directory_options::skip_permission_denied, error);
       !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) fs::permissions(*entry, fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::remove_all(path_, error);
}

void writeFile(const fs::path& path, std::string_view content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();  // other ways throw when a process ends while its file in /proc is read
  return content.str();
}

}  // namespace vornet::test
