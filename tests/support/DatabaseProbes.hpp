#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <mutex>
#include <string>

#include "db/ConfigDB.hpp"
#include "db/SyncDB.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

/// A reader of either database with its connection and lock open to a test.
template <typename Reader>
struct Probe : Reader {
  using Reader::_getSyncDBPath;
  using Reader::connect;
  using Reader::db;
  using Reader::disconnect;
  using Reader::lock;

  /// True if some thread holds the instance's lock, other than a thread made for asking.
  bool isLocked() {
    return onAnotherThread([this] {
      if (!lock().try_lock()) return true;
      lock().unlock();
      return false;
    });
  }
};

using SyncDBProbe = Probe<SyncDB>;
using ConfigDBProbe = Probe<ConfigDB>;

/// How many of this process's file descriptors are open on the file at `path`.
inline std::size_t openDescriptors(const std::filesystem::path& path) {
  std::size_t count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    count += std::filesystem::read_symlink(entry.path(), error) == path;
  return count;
}

}  // namespace vornet::test
