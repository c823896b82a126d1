// The two readers of JSON agree on every input, and every value survives being written and read again.
#include <cmath>
#include <map>
#include <optional>
#include <string>

#include "paths/JSON.hpp"
#include "platform/Foundation.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using Integers = std::map<std::string, std::int64_t, std::less<>>;

/// The document as an object of integers; none for another shape.
std::optional<Integers> integersOf(const JSONValue& value) {
  const auto* object = value.if_object();
  if (!object) return std::nullopt;
  Integers integers;
  for (const auto& member : *object) {
    const auto* integer = member.value().if_int64();
    if (!integer) return std::nullopt;
    integers.emplace(std::string(member.key()), *integer);
  }
  return integers;
}

bool isFinite(const JSONValue& value) {
  if (const auto* number = value.if_double()) return std::isfinite(*number);
  if (const auto* array = value.if_array()) {
    for (const auto& element : *array)
      if (!isFinite(element)) return false;
  }
  if (const auto* object = value.if_object()) {
    for (const auto& member : *object)
      if (!isFinite(member.value())) return false;
  }
  return true;
}

/// Fractions may differ in their last digits: the parser rounds.
bool areSame(const JSONValue& a, const JSONValue& b) {
  if (a.is_double() && b.is_double())
    return std::abs(a.get_double() - b.get_double()) <= 1e-14 * std::abs(a.get_double());
  if (a.is_array() && b.is_array()) {
    const auto& left = a.get_array();
    const auto& right = b.get_array();
    if (left.size() != right.size()) return false;
    for (std::size_t i = 0; i < left.size(); ++i)
      if (!areSame(left[i], right[i])) return false;
    return true;
  }
  if (a.is_object() && b.is_object()) {
    const auto& left = a.get_object();
    const auto& right = b.get_object();
    if (left.size() != right.size()) return false;
    for (const auto& member : left) {
      const auto* other = right.if_contains(member.key());
      if (!other || !areSame(member.value(), *other)) return false;
    }
    return true;
  }
  return a == b;
}

void checkBothReaders(std::string_view data) {
  std::optional<JSONValue> value;
  try {
    value = fromJSON(data);
  } catch (const JSONError&) {
  }
  Integers seen;
  std::optional<bool> isObjectOfIntegers;
  try {
    isObjectOfIntegers = integersFromJSON(data, [&](std::string_view key, std::int64_t integer) {
      require(platform::isValidUTF8(key), "a key is UTF-8");
      seen.insert_or_assign(std::string(key), integer);
    });
  } catch (const JSONError&) {
  }
  require(value.has_value() == isObjectOfIntegers.has_value(), "both readers refuse a document, or none does");
  if (!value) return;

  require(value->is_structured(), "the top level is an object or an array");
  const auto expected = integersOf(*value);
  require(expected || !*isObjectOfIntegers, "what is no object of integers is not taken for one");
  // Integers that follow other values under the same keys may count as another shape where there are many of them.
  require(!expected || *isObjectOfIntegers || data.size() > 900, "an object of integers is recognised");
  if (*isObjectOfIntegers) require(seen == *expected, "the members are those of the document, the last of equal keys");

  require(isFinite(*value), "every number is finite");
  const std::string text = toJSON(*value);
  require(areSame(*value, fromJSON(text)), "a value survives writing and reading");
}

}  // namespace
}  // namespace vornet::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vornet::fuzz::checkBothReaders({reinterpret_cast<const char*>(data), size});
  return 0;
}
