#include "paths/JSON.hpp"

#include <boost/json.hpp>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/system/error_code.hpp>
#include <cmath>
#include <limits>
#include <set>
#include <utility>

#include "platform/Foundation.hpp"

namespace vornet {
namespace {

namespace json = boost::json;

constexpr std::size_t MAX_DEPTH = 512;

// Remembers members of another kind, in case the right ones follow under the same keys.
constexpr std::size_t MAX_OTHERS = 64;
constexpr std::size_t MAX_OTHER_KEY_BYTES = 4096;

json::parse_options parseOptions() {
  json::parse_options options;
  options.max_depth = MAX_DEPTH;
  return options;
}

void requireSerialisable(const JSONValue& value) {
  const auto requireText = [](const auto& text) {
    if (!platform::isValidUTF8({text.data(), text.size()})) platform::fatalError("JSON text that is not UTF-8");
  };
  switch (value.kind()) {
    case json::kind::double_:
      if (!std::isfinite(value.get_double())) platform::fatalError("a JSON number that is not finite");
      break;
    case json::kind::string:
      requireText(value.get_string());
      break;
    case json::kind::array:
      for (const auto& element : value.get_array()) requireSerialisable(element);
      break;
    case json::kind::object:
      for (const auto& member : value.get_object()) {
        requireText(member.key());
        requireSerialisable(member.value());
      }
      break;
    default:
      break;
  }
}

using Member = std::function<void(std::string_view key, std::int64_t value)>;

enum class Kind { integer, boolean };

/// Receives a parse and passes on the members of a top-level object of values of one kind; booleans as 0 and 1.
class Members {
 public:
  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_key_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_string_size = std::numeric_limits<std::size_t>::max();

  /// `pastMismatches`: whether members are still passed on after one of another kind.
  Members(std::string_view document, Kind kind, const Member& member, bool pastMismatches)
      : document_(document), kind_(kind), member_(member), pastMismatches_(pastMismatches) {}

  bool isContainer() const { return container_; }
  bool isObjectOfKind() const { return object_ && !tooManyOthers_ && others_.empty(); }
  bool hasInfiniteNumber() const { return infinite_; }
  /// True if it met a member of another kind.
  bool mismatched() const { return mismatched_; }

  bool on_document_begin(boost::system::error_code&) { return true; }
  bool on_document_end(boost::system::error_code&) { return true; }
  bool on_object_begin(boost::system::error_code&) { return open(true); }
  bool on_object_end(std::size_t, boost::system::error_code&) { return close(); }
  bool on_array_begin(boost::system::error_code&) { return open(false); }
  bool on_array_end(std::size_t, boost::system::error_code&) { return close(); }
  bool on_key_part(json::string_view part, std::size_t, boost::system::error_code&) {
    partialKey_.append(part.data(), part.size());
    return true;
  }
  bool on_key(json::string_view rest, std::size_t, boost::system::error_code&) {
    if (partialKey_.empty() && isOfDocument(rest.data())) {  // without escapes, nothing is copied
      key_ = {rest.data(), rest.size()};
      return true;
    }
    copiedKey_ = std::move(partialKey_.append(rest.data(), rest.size()));
    partialKey_.clear();
    key_ = copiedKey_;
    return true;
  }
  bool on_string_part(json::string_view, std::size_t, boost::system::error_code&) { return true; }
  bool on_string(json::string_view, std::size_t, boost::system::error_code&) { return mismatch(); }
  bool on_number_part(json::string_view, boost::system::error_code&) { return true; }
  bool on_int64(std::int64_t value, json::string_view, boost::system::error_code&) {
    return scalar(Kind::integer, value);
  }
  bool on_uint64(std::uint64_t, json::string_view, boost::system::error_code&) { return mismatch(); }
  bool on_double(double value, json::string_view, boost::system::error_code&) {
    infinite_ = infinite_ || !std::isfinite(value);  // the parser's value for 1e999
    return mismatch();
  }
  bool on_bool(bool value, boost::system::error_code&) { return scalar(Kind::boolean, value); }
  bool on_null(boost::system::error_code&) { return mismatch(); }
  bool on_comment_part(json::string_view, boost::system::error_code&) { return true; }
  bool on_comment(json::string_view, boost::system::error_code&) { return true; }

 private:
  bool open(bool object) {
    if (depth_ == 0) {
      container_ = true;
      object_ = object;
    } else {
      mismatch();
    }
    ++depth_;
    return true;
  }
  bool close() {
    --depth_;
    return true;
  }
  bool isOfDocument(const char* text) const {
    return std::less_equal<>()(document_.data(), text) && std::less<>()(text, document_.data() + document_.size());
  }
  bool scalar(Kind kind, std::int64_t value) {
    if (kind != kind_) return mismatch();
    if (!object_ || depth_ != 1) return true;
    if (const auto other = others_.find(key_); other != others_.end()) others_.erase(other);
    if (!mismatched_ || pastMismatches_) member_(key_, value);
    return true;
  }
  bool mismatch() {
    if (!object_ || depth_ != 1 || tooManyOthers_) return true;
    mismatched_ = true;
    tooManyOthers_ = key_.size() > MAX_OTHER_KEY_BYTES;
    if (!tooManyOthers_) others_.emplace(key_);
    tooManyOthers_ = tooManyOthers_ || others_.size() > MAX_OTHERS;
    return true;
  }

  const std::string_view document_;
  const Kind kind_;
  const Member& member_;
  const bool pastMismatches_;
  std::string_view key_;  // of the member being read
  std::string copiedKey_;
  std::string partialKey_;
  std::size_t depth_ = 0;
  bool container_ = false;
  bool object_ = false;
  bool infinite_ = false;
  bool mismatched_ = false;
  bool tooManyOthers_ = false;
  std::set<std::string, std::less<>> others_;  // the top-level keys whose last value was of another kind
};

/// Reads all of `data`. Reports whether it is an object of members of `kind`, and whether one of another kind was met.
std::pair<bool, bool> parseMembers(std::string_view data, Kind kind, const Member& member, bool pastMismatches) {
  json::basic_parser<Members> parser(parseOptions(), data, kind, member, pastMismatches);
  boost::system::error_code error;
  const std::size_t read = parser.write_some(false, data.data(), data.size(), error);
  if (!error && read < data.size()) error = json::error::extra_data;
  if (error) throw JSONError(error.message());
  if (!parser.handler().isContainer()) throw JSONError("the top level is neither an object nor an array");
  if (parser.handler().hasInfiniteNumber()) throw JSONError("a number is too large");
  return {parser.handler().isObjectOfKind(), parser.handler().mismatched()};
}

bool membersFromJSON(std::string_view data, Kind kind, const Member& member) {
  const auto [isOfKind, mismatched] = parseMembers(data, kind, member, false);
  if (isOfKind && mismatched) parseMembers(data, kind, member, true);
  return isOfKind;
}

}  // namespace

std::string toJSON(const JSONValue& object) {
  requireSerialisable(object);
  return json::serialize(object);
}

JSONValue fromJSON(std::string_view data) {
  parseMembers(data, Kind::integer, [](std::string_view, std::int64_t) {}, false);  // throws alike for both readers
  return json::parse({data.data(), data.size()}, {}, parseOptions());
}

bool integersFromJSON(std::string_view data, const std::function<void(std::string_view, std::int64_t)>& member) {
  return membersFromJSON(data, Kind::integer, member);
}

bool booleansFromJSON(std::string_view data, const std::function<void(std::string_view, bool)>& member) {
  return membersFromJSON(data, Kind::boolean,
                         [&member](std::string_view key, std::int64_t value) { member(key, value != 0); });
}

}  // namespace vornet
