#include "kelvane-sim/Preferences.hpp"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "kelvane-sim/SqliteFile.hpp"
#include "kelvane-sim/TestFolder.hpp"

namespace vornet::sim {
namespace {

using testing::TestFolder;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string rootDirOf(const std::string& container) {
  const std::string bytes = contentOf(container + "/VornetKelvane.plist");
  plist_t dictionary = nullptr;
  const auto size = static_cast<std::uint32_t>(bytes.size());
  // Not plist_from_memory, whose arguments differ between the versions of the library.
  (plist_is_binary(bytes.data(), size) ? plist_from_bin : plist_from_xml)(bytes.data(), size, &dictionary);
  EXPECT_NE(dictionary, nullptr);
  char* text = nullptr;
  plist_get_string_val(plist_dict_get_item(dictionary, "root_dir"), &text);
  const std::string root = text != nullptr ? text : "(no text)";
  std::free(text);
  plist_free(dictionary);
  return root;
}

TEST(Preferences, AnyRootReadsBackUnchanged) {
  const TestFolder folder;
  for (const std::string root : {"/home/ann/Kelvane", "/a & b/<c>\"'", "/caf\xC3\xA9", "/cafe\xCC\x81",
                                 "/\xF0\x9F\x98\x80", "/line\nbreak\x01"}) {
    writePreferences(folder.path(), root);
    EXPECT_EQ(rootDirOf(folder.path()), root);
  }
}

TEST(Preferences, TheSystemToolReadsTheFile) {
  const TestFolder folder;
  writePreferences(folder.path(), "/home/ann/Kelvane");
  EXPECT_NE(contentOf(folder.path("/VornetKelvane.plist")).find("<key>root_dir</key>"), std::string::npos);
  const std::string command =
      "plistutil -f bin -i '" + folder.path("/VornetKelvane.plist") + "' -o '" + folder.path("/copy") + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_TRUE(contentOf(folder.path("/copy")).starts_with("bplist00"));
}

TEST(Preferences, NothingButThePropertyListIsLeftBehind) {
  const TestFolder folder;
  writePreferences(folder.path(), "/r");
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.path())) ++files;
  EXPECT_EQ(files, 1U);
}

TEST(Preferences, AContainerThatCannotBeWrittenIsAnError) {
  const TestFolder folder;
  EXPECT_THROW(writePreferences(folder.path("/missing"), "/r"), std::runtime_error);
  EXPECT_THROW(writeConfiguration(folder.path("/missing"), "/r"), std::runtime_error);
}

TEST(Preferences, TheConfigurationHoldsOneRoot) {
  const TestFolder folder;
  folder.write("/config.db", "no database at all, but long enough to be taken for one by a hasty reader of files");
  writeConfiguration(folder.path(), "/first");
  writeConfiguration(folder.path(), "/caf\xC3\xA9");
  SqliteFile file(folder.path("/config.db"));
  auto query = file.prepare("SELECT local_root FROM configuration");
  ASSERT_TRUE(query.step());
  EXPECT_EQ(query.text(0), "/caf\xC3\xA9");
  EXPECT_FALSE(query.step());
}

}  // namespace
}  // namespace vornet::sim
