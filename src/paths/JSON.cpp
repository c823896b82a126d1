#include "paths/JSON.hpp"

#include <boost/json.hpp>
#include <boost/json/basic_parser_impl.hpp>
#include <cmath>
#include <limits>
#include <set>

#include "platform/Foundation.hpp"

namespace vornet {
namespace {

namespace json = boost::json;

constexpr std::size_t MAX_DEPTH = 512;

// What is remembered of members that are no integers, in case that integers follow under the same keys.
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

/// Receives a parse and passes on the members of a top-level object of integers.
class IntegerMembers {
 public:
  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_key_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_string_size = std::numeric_limits<std::size_t>::max();

  /// `pastMismatches`: whether integers are still passed on after a member of another kind.
  IntegerMembers(std::string_view document, const std::function<void(std::string_view, std::int64_t)>& member,
                 bool pastMismatches)
      : document_(document), member_(member), pastMismatches_(pastMismatches) {}

  bool isContainer() const { return container_; }
  bool isObjectOfIntegers() const { return object_ && !tooManyOthers_ && others_.empty(); }
  /// Whether it met a member that is no integer.
  bool mismatched() const { return mismatched_; }

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return open(true); }
  bool on_object_end(std::size_t, json::error_code&) { return close(); }
  bool on_array_begin(json::error_code&) { return open(false); }
  bool on_array_end(std::size_t, json::error_code&) { return close(); }
  bool on_key_part(json::string_view part, std::size_t, json::error_code&) {
    partialKey_.append(part.data(), part.size());
    return true;
  }
  bool on_key(json::string_view rest, std::size_t, json::error_code&) {
    if (partialKey_.empty() && isOfDocument(rest.data())) {  // without escapes: nothing need be copied
      key_ = {rest.data(), rest.size()};
      return true;
    }
    copiedKey_ = std::move(partialKey_.append(rest.data(), rest.size()));
    partialKey_.clear();
    key_ = copiedKey_;
    return true;
  }
  bool on_string_part(json::string_view, std::size_t, json::error_code&) { return true; }
  bool on_string(json::string_view, std::size_t, json::error_code&) { return mismatch(); }
  bool on_number_part(json::string_view, json::error_code&) { return true; }
  bool on_int64(std::int64_t value, json::string_view, json::error_code&) {
    if (!object_ || depth_ != 1) return true;
    if (const auto other = others_.find(key_); other != others_.end()) others_.erase(other);
    if (!mismatched_ || pastMismatches_) member_(key_, value);
    return true;
  }
  bool on_uint64(std::uint64_t, json::string_view, json::error_code&) { return mismatch(); }
  bool on_double(double, json::string_view, json::error_code&) { return mismatch(); }
  bool on_bool(bool, json::error_code&) { return mismatch(); }
  bool on_null(json::error_code&) { return mismatch(); }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

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
  bool mismatch() {
    if (!object_ || depth_ != 1 || tooManyOthers_) return true;
    mismatched_ = true;
    tooManyOthers_ = key_.size() > MAX_OTHER_KEY_BYTES;
    if (!tooManyOthers_) others_.emplace(key_);
    tooManyOthers_ = tooManyOthers_ || others_.size() > MAX_OTHERS;
    return true;
  }

  const std::string_view document_;
  const std::function<void(std::string_view, std::int64_t)>& member_;
  const bool pastMismatches_;
  std::string_view key_;  // of the member being read
  std::string copiedKey_;
  std::string partialKey_;
  std::size_t depth_ = 0;
  bool container_ = false;
  bool object_ = false;
  bool mismatched_ = false;
  bool tooManyOthers_ = false;
  std::set<std::string, std::less<>>
      others_;  // the top-level keys under which something else than an integer stood last
};

[[noreturn]] void throwTopLevelScalar() {
  throw JSONError("the top level is neither an object nor an array");
}

struct Shape {
  bool isObjectOfIntegers;
  bool mismatched;  // some member was no integer, or stood so first
};

Shape parseMembers(std::string_view data, const std::function<void(std::string_view, std::int64_t)>& member,
                   bool pastMismatches) {
  json::basic_parser<IntegerMembers> parser(parseOptions(), data, member, pastMismatches);
  json::error_code error;
  const std::size_t read = parser.write_some(false, data.data(), data.size(), error);
  if (!error && read < data.size()) error = json::error::extra_data;
  if (error) throw JSONError(error.message());
  if (!parser.handler().isContainer()) throwTopLevelScalar();
  return {parser.handler().isObjectOfIntegers(), parser.handler().mismatched()};
}

}  // namespace

std::string toJSON(const JSONValue& object) {
  requireSerialisable(object);
  return json::serialize(object);
}

JSONValue fromJSON(std::string_view data) {
  json::error_code error;
  JSONValue value = json::parse(data, error, {}, parseOptions());
  if (error) throw JSONError(error.message());
  if (!value.is_structured()) throwTopLevelScalar();
  return value;
}

bool integersFromJSON(std::string_view data, const std::function<void(std::string_view, std::int64_t)>& member) {
  const auto first = parseMembers(data, member, false);
  if (first.isObjectOfIntegers && first.mismatched) parseMembers(data, member, true);
  return first.isObjectOfIntegers;
}

}  // namespace vornet
