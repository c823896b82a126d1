#pragma once

#include <array>
#include <functional>
#include <string_view>

#include "kelvane-sim/ActionJournal.hpp"
#include "kelvane-sim/Fault.hpp"
#include "kelvane-sim/HttpServer.hpp"
#include "kelvane-sim/SyncEngine.hpp"

namespace vornet::sim {

inline constexpr std::string_view COMMAND_ICONS = "get_icons_for_folder";
inline constexpr std::string_view COMMAND_MENU = "mac_populate_menu";
inline constexpr std::string_view COMMAND_SELECT = "select_context_menu";
inline constexpr std::array<std::string_view, 3> COMMANDS{COMMAND_ICONS, COMMAND_MENU, COMMAND_SELECT};

/// The command that `request` is for: its target without the leading slash, whether known or not.
std::string_view commandOf(const HttpRequest& request);

/// The three commands, each a POST of a JSON object to "/" + its name, answered by a JSON object:
///
/// get_icons_for_folder {"dir_name": "/a/"}: cloud path -> code of each direct child; a child folder's key has no
/// trailing
///   slash. 404 for a folder that does not exist. dir_name begins and ends with "/".
/// mac_populate_menu {"paths": ["/a/", "/b"]}: "1" to "5" -> whether the action is enabled. Paths begin
///   with "/"; one that ends in "/" can only be a folder.
/// select_context_menu {"uid": "2", "paths": [...]}: {} once the action is in the journal; at least one path. Whether
/// the
///   items exist, and whether the menu offers the action for them, is not asked again.
///
/// Errors are {"error": text}: 400 for a body that is not as above, 404 for other targets, 405 for other methods, 500
/// when the journal cannot be written. May be called from any thread.
class Commands {
 public:
  /// Carries an action out; throws std::exception when it cannot.
  using Perform = std::function<void(const Action&)>;

  /// `engine` outlives this. `perform` is called on the thread of `answer`.
  Commands(const SyncEngine& engine, Perform perform);

  /// The reply to `request`, spoilt by `fault`. A fault that stands for a server that fails (STALL, NOT_FOUND,
  /// SERVER_ERROR) performs nothing. Those that change a reply's entries (ARRAY, STRING_VALUES, NESTED, WRONG_VALUES,
  /// HUGE_REPLY) leave error replies as they are.
  HttpReply answer(const HttpRequest& request, Fault fault) const;

 private:
  HttpReply properAnswer(const HttpRequest& request, bool act) const;
  HttpReply icons(std::string_view body) const;
  HttpReply menu(std::string_view body) const;
  HttpReply select(std::string_view body, bool act) const;

  const SyncEngine& engine_;
  const Perform perform_;
};

}  // namespace vornet::sim
