#pragma once

#include <functional>
#include <string_view>

#include "kelvane-sim/Container.hpp"
#include "kelvane-sim/HttpServer.hpp"
#include "kelvane-sim/SyncedFolder.hpp"

namespace vornet::sim {

/// Ways in which the stand-in misbehaves on request.
enum class Fault {
  none,
  refuse,        ///< the port is closed and connections are dropped, as if the application had ended
  stall,         ///< the request is read and nothing is answered, until the client leaves
  drip,          ///< headers, then a body without end, one byte each 100 ms
  dripHeaders,   ///< a status line, then a header without end, one byte each 100 ms
  reset,         ///< headers and half of the body, then a reset connection
  notFound,      ///< status 404
  serverError,   ///< status 500
  notJSON,       ///< status 200, a body that is no JSON
  array,         ///< status 200, an array instead of an object
  stringValues,  ///< status 200, values as texts: "2", "true"
  nested,        ///< status 200, values wrapped in objects
  wrongValues,   ///< status 200, booleans and fractions for codes, numbers for booleans
  emptyBody,     ///< status 200, no body
  hugeReply,     ///< status 200, 100,000 entries beside the right ones
};

/// The command that `request` is for: its target without the leading slash, whether known or not.
std::string_view commandOf(const HttpRequest& request);

/// Carries an action out; throws std::exception when it cannot.
using Perform = std::function<void(const Action&)>;

/// The reply to one of the three commands, each a POST of a JSON object, answered by a JSON object:
///
/// get_icons_for_folder {"dir_name": "/a/"}: cloud path -> code of everything directly in the folder, without trailing
///   slashes; 404 when there is no such folder.
/// mac_populate_menu {"paths": ["/a/", "/b"]}: "1" to "5" -> whether the action is enabled.
/// select_context_menu {"uid": "2", "paths": [...]}: {} once `perform` has returned.
///
/// Errors are {"error": text}: 404 for other targets, 400 for other bodies, 500 when `perform` fails. `fault` spoils
/// the reply; with a fault of a failing server (stall, notFound, serverError) nothing is performed.
HttpReply answer(const HttpRequest& request, Fault fault, const SyncedFolder& folder, const Perform& perform);

}  // namespace vornet::sim
