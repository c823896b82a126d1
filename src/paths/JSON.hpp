#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

/// JSON bytes to values and back, for the exchanges with the sync application. No state; any thread.
namespace vornet {

using JSONValue = boost::json::value;

/// Bytes that are not a JSON document; what() says why.
class JSONError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The compact JSON text of `object`. What cannot be serialised (a number that is not finite, text that is not UTF-8)
/// stops the process.
std::string toJSON(const JSONValue& object);

/// The value of a JSON document (RFC 8259) whose top level is an object or an array; of equal keys the last one wins.
/// Throws JSONError for anything else: empty data, a scalar at the top, trailing bytes, bytes that are not UTF-8,
/// nesting deeper than 512, a number too large for a double.
/// Kept ready; nothing calls it yet.
JSONValue fromJSON(std::string_view data);

/// Reads a document as fromJSON does, when an object of integers is expected, without building it: calls `member` for
/// each key (valid during the call only) in document order; of equal keys the last one wins. Throws JSONError where
/// fromJSON does. False when the document has another shape: no member is passed on after the first that is no integer,
/// though the rest is still read for errors. If integers follow under the same keys after all, every member is passed
/// on once more, from the first; that is not looked for under more than 64 keys, or longer ones than 4,096 bytes. Needs
/// no memory that grows with the document.
bool integersFromJSON(std::string_view data,
                      const std::function<void(std::string_view key, std::int64_t value)>& member);

/// The same for an object of booleans.
bool booleansFromJSON(std::string_view data, const std::function<void(std::string_view key, bool value)>& member);

}  // namespace vornet
