#include "rest/MenuActions.hpp"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include "base/AppConst.hpp"
#include "logging/Logging.hpp"
#include "logging/PrintedForm.hpp"
#include "paths/JSON.hpp"
#include "rest/RESTClient.hpp"

namespace vornet {
namespace {

constexpr std::size_t MAX_ITEMS = 15;
// A menu has five; a reply with many more is no menu.
constexpr std::size_t MAX_ENTRIES = 1000;

boost::json::array jsonArray(const std::vector<std::string>& texts) {
  boost::json::array array;
  array.reserve(texts.size());
  for (const auto& text : texts) array.emplace_back(text);
  return array;
}

}  // namespace

std::optional<platform::FileURL> Menu::rootDir() const {
  const std::lock_guard guard(lock_);
  return rootDir_;
}

void Menu::setRootDir(const platform::FileURL& rootDir) {
  const std::lock_guard guard(lock_);
  rootDir_ = rootDir;
}

void Menu::viewInCloud(const std::vector<std::string>& paths) const {
  selectContextMenu(MENU_CFS, paths);
}
void Menu::viewNotes(const std::vector<std::string>& paths) const {
  selectContextMenu(MENU_VIEW_NOTES, paths);
}
void Menu::viewVersions(const std::vector<std::string>& paths) const {
  selectContextMenu(MENU_VIEW_VERSIONS, paths);
}
void Menu::shareAsLink(const std::vector<std::string>& paths) const {
  selectContextMenu(MENU_SHARE_AS_LINK, paths);
}
void Menu::copyLink(const std::vector<std::string>& paths) const {
  selectContextMenu(MENU_COPY_LINK, paths);
}

std::optional<std::string> Menu::post(const char* command, const std::string& body,
                                      const std::optional<RESTClient::Headers>& headers) const {
  const auto report = [this](bool answered) {
    if (sink_) sink_->syncApplicationAnswered(answered);
  };
  try {
    auto reply = RESTClient::postAtPath(command, body, headers);
    report(reply.has_value());
    return reply;
  } catch (const HTTPError& error) {
    report(error.code().has_value());
    throw;
  }
}

std::map<std::string, bool> Menu::menuEnabledDict(const std::vector<std::string>& paths) const {
  if (paths.size() - 1 > MAX_ITEMS - 1) {  // unsigned: none wraps around to very many
    VI_INFO("No selected or too many items");
    return {};
  }
  VI_DEBUG("Requesting menu status for: " + printedForm(paths));
  std::map<std::string, bool> enabled;
  bool ofBooleans = false;
  try {
    const auto data = post("mac_populate_menu", toJSON({{"paths", jsonArray(paths)}}),
                           RESTClient::Headers{{"Accept", "application/json"}});
    if (!data) return {};
    VI_DEBUG("Menu status: " + printedBytes(*data));
    bool tooMany = false;
    ofBooleans = booleansFromJSON(*data, [&](std::string_view action, bool value) {
      tooMany = tooMany || enabled.size() == MAX_ENTRIES;
      if (!tooMany) enabled.insert_or_assign(std::string(action), value);
    });
    if (ofBooleans && tooMany) throw JSONError("too many entries");
  } catch (...) {
    VI_WARNING("Cannot populate context menu: " + describeCurrentError());
    return {};
  }
  if (!ofBooleans) platform::fatalError("the menu's reply is not an object of booleans");
  return enabled;
}

std::optional<std::string> Menu::selectContextMenu(std::string_view identifier,
                                                   const std::vector<std::string>& paths) const {
  try {
    return post("select_context_menu", toJSON({{"uid", identifier}, {"paths", jsonArray(paths)}}), std::nullopt);
  } catch (const HTTPError& error) {
    if (const auto code = error.code()) {
      VI_WARNING("Cannot fetch context menu actions, unexpected status: " + std::to_string(*code));
      return std::nullopt;
    }
    VI_WARNING("Unexpected error occured while fetching context menu: " + error.description());
  } catch (...) {
    VI_WARNING("Unexpected error occured while fetching context menu: " + describeCurrentError());
  }
  return std::nullopt;
}

}  // namespace vornet
