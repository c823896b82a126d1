#include "kelvane-sim/Commands.hpp"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vornet::sim {

namespace json = boost::json;

namespace {

using Paths = std::vector<std::string>;

HttpReply errorReply(int status, const std::string& text) {
  return {status, json::serialize(json::object{{"error", text}})};
}

Paths pathsOf(const json::value& body) {
  auto paths = json::value_to<Paths>(body.at("paths"));
  if (!std::all_of(paths.begin(), paths.end(), [](const std::string& path) { return path.starts_with('/'); }))
    throw std::invalid_argument("\"paths\" holds something other than cloud paths");
  return paths;
}

/// Names of the actions "1" to "5".
constexpr std::array<const char*, 5> ACTIONS{"Share", "Copy Link", "View in Cloud", "Comments", "View versions"};

/// Which of ACTIONS are enabled. None for an empty selection, and unless every item is known and pending or synced.
std::array<bool, ACTIONS.size()> enabledActions(const Paths& paths, const SyncedFolder& folder) {
  const bool single = paths.size() == 1;
  bool syncedFile = single;  // only it has versions
  for (const std::string& path : paths) {
    const auto item = folder.find(path);
    if (!item || (item->code != CODE_PENDING && item->code != CODE_SYNCED)) return {};
    syncedFile = syncedFile && !item->folder && item->code == CODE_SYNCED;
  }
  return {!paths.empty(), single, !paths.empty(), single, syncedFile};
}

HttpReply icons(const json::value& body, const SyncedFolder& folder) {
  const auto name = json::value_to<std::string>(body.at("dir_name"));
  if (!name.starts_with('/') || !name.ends_with('/'))
    throw std::invalid_argument("\"dir_name\" does not begin and end with /");
  const auto children = folder.children(name);
  if (!children) return errorReply(404, "no such folder");
  return {200, json::serialize(json::value_from(*children))};
}

HttpReply menu(const json::value& body, const SyncedFolder& folder) {
  json::object entries;
  int uid = 0;
  for (const bool enabled : enabledActions(pathsOf(body), folder)) entries[std::to_string(++uid)] = enabled;
  return {200, json::serialize(entries)};
}

HttpReply select(const json::value& body, const Perform& perform) {
  const auto uid = json::value_to<std::string>(body.at("uid"));
  if (uid.size() != 1 || uid < "1" || uid > "5") throw std::invalid_argument("\"uid\" is none of \"1\" to \"5\"");
  const Action action{uid, ACTIONS.at(static_cast<std::size_t>(uid[0] - '1')), pathsOf(body)};
  try {
    perform(action);
  } catch (const std::exception& error) {
    return errorReply(500, error.what());
  }
  return {200, "{}"};
}

HttpReply properAnswer(const HttpRequest& request, const SyncedFolder& folder, const Perform& perform) {
  const std::string_view command = commandOf(request);
  try {
    if (command == "get_icons_for_folder") return icons(json::parse(request.body), folder);
    if (command == "mac_populate_menu") return menu(json::parse(request.body), folder);
    if (command == "select_context_menu") return select(json::parse(request.body), perform);
  } catch (const std::exception& error) {
    return errorReply(400, error.what());
  }
  return errorReply(404, "no such command");
}

// --- Spoilt replies

// Written as text, so that even a loaded machine makes it before a client gives up.
std::string hugeEntries(std::string entries, const HttpRequest& request) {
  constexpr int COUNT = 100'000;
  const bool codes = commandOf(request) == "get_icons_for_folder";
  std::string begin = json::serialize(codes ? json::parse(request.body).at("dir_name") : json::value(""));
  begin.pop_back();  // the closing quote
  entries.pop_back();
  for (int i = 0; i < COUNT; ++i) {
    if (entries.size() > 1) entries += ',';
    entries.append(begin).append("entry-").append(std::to_string(i)).append(codes ? "\":2" : "\":false");
  }
  return entries += '}';
}

std::string wrongEntries(json::object entries, Fault fault) {
  if (entries.empty()) entries["/entry"] = CODE_SYNCED;  // something must be wrong
  json::array list;
  bool odd = false;
  for (auto& entry : entries) {
    json::value& value = entry.value();
    odd = !odd;
    if (fault == Fault::array)
      list.insert(list.end(), {entry.key(), value});
    else if (fault == Fault::stringValues)
      value = json::serialize(value);
    else if (fault == Fault::nested)
      value = json::object{{"value", value}};
    else
      value = value.is_bool() ? json::value(1) : odd ? json::value(true) : json::value(1.5);
  }
  return fault == Fault::array ? json::serialize(list) : json::serialize(entries);
}

HttpReply spoilt(HttpReply reply, Fault fault, const HttpRequest& request) {
  switch (fault) {
    case Fault::stall:
      reply.delivery = Delivery::stall;
      break;
    case Fault::drip:
      reply.delivery = Delivery::drip;
      break;
    case Fault::dripHeaders:
      reply.delivery = Delivery::dripHeaders;
      break;
    case Fault::reset:
      reply.delivery = Delivery::reset;
      break;
    case Fault::notFound:
      return errorReply(404, "not found");
    case Fault::serverError:
      return errorReply(500, "server error");
    case Fault::notJSON:
      return {200, "<html>not JSON"};
    case Fault::emptyBody:
      return {200, ""};
    case Fault::hugeReply:
      if (reply.status == 200) reply.body = hugeEntries(std::move(reply.body), request);
      break;
    case Fault::array:
    case Fault::stringValues:
    case Fault::nested:
    case Fault::wrongValues:
      if (reply.status == 200) reply.body = wrongEntries(json::parse(reply.body).as_object(), fault);
      break;
    case Fault::none:
    case Fault::refuse:  // no request comes in
      break;
  }
  return reply;
}

}  // namespace

std::string_view commandOf(const HttpRequest& request) {
  return std::string_view(request.target).substr(request.target.starts_with('/') ? 1 : 0);
}

HttpReply answer(const HttpRequest& request, Fault fault, const SyncedFolder& folder, const Perform& perform) {
  const bool act = fault != Fault::stall && fault != Fault::notFound && fault != Fault::serverError;
  return spoilt(properAnswer(request, folder, act ? perform : [](const Action&) {}), fault, request);
}

}  // namespace vornet::sim
