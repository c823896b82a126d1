#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "base/AppConst.hpp"

/// The folders of the benchmarks: as large as users' and with such names. Pure functions; any thread.
namespace vornet::bench {

inline constexpr std::size_t ENTRIES = 10'000;  ///< of a folder
inline constexpr std::size_t FOLDERS = 50;
inline constexpr std::size_t CHANGES = ENTRIES / 100;

/// The cloud path of folder `number`, ending in "/".
std::string folderKeyOf(std::size_t number);

/// The cloud path of an item of the folder `key`. With a folder of folderKeyOf: 84 bytes.
std::string itemOf(const std::string& key, std::size_t number);

/// The first `entries` items of the folder `key`.
std::vector<std::string> itemsOf(const std::string& key, std::size_t entries = ENTRIES);

/// The code of item `number`. `changed`: after the change of one item in a hundred.
StatusCode codeOf(std::size_t number, bool changed = false);

/// The sync application's reply for the folder `key`: about 880 KiB for ENTRIES items.
std::string replyFor(const std::string& key, bool changed = false, std::size_t entries = ENTRIES);

}  // namespace vornet::bench
