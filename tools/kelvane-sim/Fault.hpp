#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string_view>

namespace vornet::sim {

/// Ways in which the stand-in misbehaves on request.
enum class Fault {
  NONE,
  REFUSE,         ///< the listening socket is closed and connections are dropped, as if the application had ended
  STALL,          ///< the request is read and nothing is answered, until the client leaves
  DRIP,           ///< headers, then a body without end, one byte each 100 ms
  DRIP_HEADERS,   ///< a status line, then a header without end, one byte each 100 ms
  RESET,          ///< headers and half of the body, then a reset connection
  NOT_FOUND,      ///< status 404
  SERVER_ERROR,   ///< status 500
  NOT_JSON,       ///< status 200, a body that is no JSON
  ARRAY,          ///< status 200, an array instead of an object
  STRING_VALUES,  ///< status 200, values as texts: "2", "true"
  NESTED,         ///< status 200, values wrapped in objects
  WRONG_VALUES,   ///< status 200, booleans and fractions for codes, numbers for booleans
  EMPTY_BODY,     ///< status 200, no body
  HUGE_REPLY,     ///< status 200, 100,000 entries beside the right ones
};

/// A fault's name on the command line.
struct FaultName {
  Fault fault;
  std::string_view name;
  std::string_view meaning;
};

inline constexpr std::array<FaultName, 15> FAULT_NAMES{{
    {Fault::NONE, "none", "behave"},
    {Fault::REFUSE, "refuse", "refuse connections"},
    {Fault::STALL, "stall", "never answer"},
    {Fault::DRIP, "drip", "an endless body, one byte each 100 ms"},
    {Fault::DRIP_HEADERS, "drip-headers", "endless headers, one byte each 100 ms"},
    {Fault::RESET, "reset", "reset the connection within the body"},
    {Fault::NOT_FOUND, "404", "status 404"},
    {Fault::SERVER_ERROR, "500", "status 500"},
    {Fault::NOT_JSON, "not-json", "a body that is no JSON"},
    {Fault::ARRAY, "array", "an array for an object"},
    {Fault::STRING_VALUES, "strings", "texts for values"},
    {Fault::NESTED, "nested", "objects for values"},
    {Fault::WRONG_VALUES, "wrong-values", "values of another type"},
    {Fault::EMPTY_BODY, "empty", "an empty body"},
    {Fault::HUGE_REPLY, "huge", "100,000 entries"},
}};

/// A fault as asked for in words.
struct FaultRequest {
  Fault fault = Fault::NONE;
  std::chrono::milliseconds duration{0};  ///< how long it lasts; zero: until another is set
};

/// Reads "NAME[:SECONDS]", for example "stall:10". None for an unknown name and a duration that is no positive number.
std::optional<FaultRequest> parseFault(std::string_view text);

}  // namespace vornet::sim
