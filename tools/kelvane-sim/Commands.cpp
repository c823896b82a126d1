#include "kelvane-sim/Commands.hpp"

#include <algorithm>
#include <boost/json.hpp>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vornet::sim {

namespace json = boost::json;

namespace {

struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

HttpReply errorReply(int status, const std::string& text) {
  return {status, json::serialize(json::object{{"error", text}})};
}

json::object objectOf(std::string_view body) {
  boost::system::error_code error;
  json::value value = json::parse(json::string_view(body.data(), body.size()), error);
  if (error) throw BadRequest{"the body is not JSON"};
  if (!value.is_object()) throw BadRequest{"the body is not an object"};
  return std::move(value.get_object());
}

std::string textOf(const json::object& object, const char* key, const char* complaint) {
  const json::value* value = object.if_contains(key);
  if (value == nullptr || !value->is_string()) throw BadRequest{complaint};
  return std::string(value->get_string());
}

std::vector<std::string> pathsOf(const json::object& object) {
  const json::value* value = object.if_contains("paths");
  if (value == nullptr || !value->is_array()) throw BadRequest{"\"paths\" is not an array"};
  std::vector<std::string> paths;
  for (const json::value& path : value->get_array()) {
    if (!path.is_string()) throw BadRequest{"\"paths\" holds something that is no text"};
    if (!path.get_string().starts_with('/')) throw BadRequest{"\"paths\" holds something that is no cloud path"};
    paths.emplace_back(path.get_string());
  }
  return paths;
}

// --- The menu

/// One action: its identifier on the wire and its name in the journal.
struct MenuAction {
  std::string_view uid;
  std::string_view name;
};

/// The five actions in the order of their identifiers "1" to "5".
constexpr std::array<MenuAction, 5> MENU_ACTIONS{{
    {"1", "Share"},
    {"2", "Copy Link"},
    {"3", "View in Cloud"},
    {"4", "Comments"},
    {"5", "View versions"},
}};

/// The action with the identifier `uid`; none for any other text.
std::optional<MenuAction> menuActionWithUid(std::string_view uid) {
  const auto found =
      std::find_if(MENU_ACTIONS.begin(), MENU_ACTIONS.end(), [&](const MenuAction& a) { return a.uid == uid; });
  if (found == MENU_ACTIONS.end()) return std::nullopt;
  return *found;
}

/// Which of MENU_ACTIONS are enabled for a selection. `items`: one element for each selected path, none for a path that
/// is not known. Nothing is enabled for an empty selection, nor when an item is unknown or its code is neither 1
/// (pending) nor 2 (synced). Otherwise
/// - "1" share as link:  one or more items
/// - "2" copy link:      exactly one item
/// - "3" view in cloud:  one or more items
/// - "4" comments:       exactly one item
/// - "5" view versions:  exactly one item that is a synced file (folders have no versions).
std::array<bool, 5> enabledActions(const std::vector<std::optional<FolderModel::Item>>& items) {
  const bool allInCloud = std::all_of(items.begin(), items.end(), [](const std::optional<FolderModel::Item>& item) {
    return item && (item->code == CODE_PENDING || item->code == CODE_SYNCED);
  });
  if (items.empty() || !allInCloud) return {};
  const bool single = items.size() == 1;
  const bool syncedFile = single && !items.front()->folder && items.front()->code == CODE_SYNCED;
  return {true, single, true, single, syncedFile};
}

// --- Spoilt replies
// ---------------------------------------------------------------------------------------------------

json::value wrongValue(const json::value& value, bool odd) {
  if (value.is_bool()) return value.get_bool() ? 1 : 0;
  if (odd) return true;
  return 1.5;
}

void addHugeEntries(json::object& entries, const HttpRequest& request) {
  constexpr int COUNT = 100'000;
  std::string prefix;
  json::value value = false;
  if (commandOf(request) == COMMAND_ICONS) {
    prefix = textOf(objectOf(request.body), "dir_name", "");
    value = CODE_SYNCED;
  }
  entries.reserve(entries.size() + COUNT);
  for (int i = 0; i < COUNT; ++i) {
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "entry-%06d", i);
    entries.emplace(prefix + number.data(), value);
  }
}

// The entries of a good reply, changed as `fault` has it.
std::string spoiltEntries(json::object entries, Fault fault, const HttpRequest& request) {
  if (fault == Fault::HUGE_REPLY) {
    addHugeEntries(entries, request);
    return json::serialize(entries);
  }
  if (entries.empty()) entries["/entry"] = CODE_SYNCED;  // there must be something to be wrong
  json::array list;
  bool odd = false;
  for (auto& entry : entries) {
    json::value& value = entry.value();
    odd = !odd;
    switch (fault) {
      case Fault::ARRAY:
        list.emplace_back(entry.key());
        list.push_back(value);
        break;
      case Fault::STRING_VALUES:
        value = json::string(json::serialize(value));
        break;
      case Fault::NESTED:
        value = json::object{{"value", value}};
        break;
      default:
        value = wrongValue(value, odd);
    }
  }
  return fault == Fault::ARRAY ? json::serialize(list) : json::serialize(entries);
}

HttpReply spoilt(HttpReply reply, Fault fault, const HttpRequest& request) {
  switch (fault) {
    case Fault::STALL:
      reply.delivery = Delivery::STALL;
      break;
    case Fault::DRIP:
      reply.delivery = Delivery::DRIP;
      break;
    case Fault::DRIP_HEADERS:
      reply.delivery = Delivery::DRIP_HEADERS;
      break;
    case Fault::RESET:
      reply.delivery = Delivery::RESET;
      break;
    case Fault::NOT_FOUND:
      return errorReply(404, "not found");
    case Fault::SERVER_ERROR:
      return errorReply(500, "server error");
    case Fault::NOT_JSON:
      return {200, "<html>not JSON"};
    case Fault::EMPTY_BODY:
      return {200, ""};
    case Fault::ARRAY:
    case Fault::STRING_VALUES:
    case Fault::NESTED:
    case Fault::WRONG_VALUES:
    case Fault::HUGE_REPLY:
      if (reply.status == 200) reply.body = spoiltEntries(objectOf(reply.body), fault, request);
      break;
    case Fault::NONE:
    case Fault::REFUSE:  // the server's matter: no request comes in
      break;
  }
  return reply;
}

}  // namespace

std::string_view commandOf(const HttpRequest& request) {
  std::string_view target = request.target;
  if (target.starts_with('/')) target.remove_prefix(1);
  return target;
}

Commands::Commands(const SyncEngine& engine, Perform perform) : engine_(engine), perform_(std::move(perform)) {}

HttpReply Commands::answer(const HttpRequest& request, Fault fault) const {
  const bool act = fault != Fault::STALL && fault != Fault::NOT_FOUND && fault != Fault::SERVER_ERROR;
  return spoilt(properAnswer(request, act), fault, request);
}

HttpReply Commands::properAnswer(const HttpRequest& request, bool act) const {
  const std::string_view command = commandOf(request);
  if (std::find(COMMANDS.begin(), COMMANDS.end(), command) == COMMANDS.end()) return errorReply(404, "no such command");
  if (request.method != "POST") return errorReply(405, "only POST");
  try {
    if (command == COMMAND_ICONS) return icons(request.body);
    if (command == COMMAND_MENU) return menu(request.body);
    return select(request.body, act);
  } catch (const BadRequest& bad) {
    return errorReply(400, bad.what());
  } catch (const std::exception& error) {
    return errorReply(500, error.what());
  }
}

HttpReply Commands::icons(std::string_view body) const {
  const std::string folder = textOf(objectOf(body), "dir_name", "\"dir_name\" is not a text");
  if (!folder.starts_with('/') || !folder.ends_with('/'))
    throw BadRequest{"\"dir_name\" does not begin and end with /"};
  const auto children = engine_.children(folder);
  if (!children) return errorReply(404, "no such folder");
  json::object entries;
  entries.reserve(children->size());
  for (const auto& [path, code] : *children) entries.emplace(path, code);
  return {200, json::serialize(entries)};
}

HttpReply Commands::menu(std::string_view body) const {
  const auto enabled = enabledActions(engine_.findAll(pathsOf(objectOf(body))));
  json::object entries;
  for (std::size_t i = 0; i < MENU_ACTIONS.size(); ++i)
    entries[json::string_view(MENU_ACTIONS[i].uid.data(), MENU_ACTIONS[i].uid.size())] = enabled[i];
  return {200, json::serialize(entries)};
}

HttpReply Commands::select(std::string_view body, bool act) const {
  const json::object object = objectOf(body);
  const auto action = menuActionWithUid(textOf(object, "uid", "\"uid\" is not a text"));
  if (!action) throw BadRequest{"\"uid\" is none of \"1\" to \"5\""};
  std::vector<std::string> paths = pathsOf(object);
  if (paths.empty()) throw BadRequest{"\"paths\" is empty"};
  if (act) perform_({timeNow(), std::string(action->uid), std::string(action->name), std::move(paths)});
  return {200, "{}"};
}

}  // namespace vornet::sim
