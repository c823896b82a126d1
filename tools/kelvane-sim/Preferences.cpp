#include "kelvane-sim/Preferences.hpp"

#include <fcntl.h>
#include <plist/plist.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "kelvane-sim/FileDescriptor.hpp"
#include "kelvane-sim/Ownership.hpp"
#include "kelvane-sim/SqliteFile.hpp"

namespace vornet::sim {

namespace {

void writeLocalRoot(const std::string& path, const std::string& root) {
  SqliteFile file(path);
  file.execute("BEGIN IMMEDIATE");
  file.execute(SET_APPLICATION_ID);
  file.execute("CREATE TABLE IF NOT EXISTS configuration (local_root TEXT); DELETE FROM configuration");
  auto insert = file.prepare("INSERT INTO configuration (local_root) VALUES (?1)");
  insert.bind(1, root);
  insert.run();
  file.execute("COMMIT");
}

[[noreturn]] void failWriting(const std::string& path) {
  throw std::runtime_error("cannot write " + path + ": " + std::generic_category().message(errno));
}

void replaceFile(const std::string& path, std::string_view content) {
  const std::string temporary = path + ".new";
  FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file) failWriting(temporary);
  while (!content.empty()) {
    const ssize_t written = ::write(file.get(), content.data(), content.size());
    if (written < 0) failWriting(temporary);
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::fsync(file.get()) != 0) failWriting(temporary);
  if (::rename(temporary.c_str(), path.c_str()) != 0) failWriting(path);
}

}  // namespace

void writeConfiguration(const std::string& container, const std::string& root) {
  const std::string path = container + "/" + CONFIG_DATABASE_NAME;
  try {
    writeLocalRoot(path, root);
  } catch (const SqliteError& error) {
    if (error.code != SQLITE_NOTADB && error.code != SQLITE_CORRUPT && error.code != SQLITE_ERROR) throw;
    std::filesystem::remove(path);
    writeLocalRoot(path, root);
  }
}

void writePreferences(const std::string& container, const std::string& root) {
  const std::unique_ptr<void, decltype(&plist_free)> dictionary(plist_new_dict(), &plist_free);
  plist_dict_set_item(dictionary.get(), "root_dir", plist_new_string(root.c_str()));
  plist_dict_set_item(dictionary.get(), WRITER_KEY, plist_new_bool(1));
  const bool xml = std::none_of(root.begin(), root.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
  char* bytes = nullptr;
  std::uint32_t length = 0;
  if (xml)
    plist_to_xml(dictionary.get(), &bytes, &length);
  else
    plist_to_bin(dictionary.get(), &bytes, &length);
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  if (bytes == nullptr) throw std::runtime_error(std::string("cannot make ") + PREFERENCES_NAME);
  replaceFile(container + "/" + PREFERENCES_NAME, {bytes, length});
}

}  // namespace vornet::sim
