#include "paths/JSON.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <functional>
#include <limits>
#include <map>

#include "support/ProcessStops.hpp"

namespace vornet::test {
namespace {

namespace json = boost::json;

using Integers = std::map<std::string, std::int64_t>;

std::string repeated(std::string_view text, std::size_t times) {
  std::string out;
  for (std::size_t i = 0; i < times; ++i) out += text;
  return out;
}

std::string nestedArrays(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

std::string nestedObjects(std::size_t depth) {
  return repeated("{\"a\":", depth - 1) + "{}" + std::string(depth - 1, '}');
}

/// True if `read` refuses a document, with a reason.
bool refuses(const std::function<void()>& read) {
  try {
    read();
    return false;
  } catch (const JSONError& error) {
    EXPECT_STRNE(error.what(), "");
    return true;
  }
}

/// The members of a document that integersFromJSON takes for an object of integers; none when it has another shape.
std::optional<Integers> integersIn(std::string_view data) {
  Integers members;
  const auto store = [&](std::string_view key, std::int64_t value) { members[std::string(key)] = value; };
  return integersFromJSON(data, store) ? std::optional(members) : std::nullopt;
}

/// The same by way of the decoded value.
std::optional<Integers> integersOf(const JSONValue& value) {
  if (!value.is_object()) return std::nullopt;
  Integers members;
  for (const auto& member : value.get_object()) {
    if (!member.value().is_int64()) return std::nullopt;
    members[std::string(member.key())] = member.value().get_int64();
  }
  return members;
}

/// True if the two ways of reading `data` agree on what is refused, on its shape and on its members.
::testing::AssertionResult bothWaysAgree(std::string_view data) {
  std::optional<Integers> members;
  std::optional<Integers> decoded;
  const bool refused = refuses([&] { members = integersIn(data); });
  if (refused != refuses([&] { decoded = integersOf(fromJSON(data)); })) {
    return ::testing::AssertionFailure() << (refused ? "only integersFromJSON" : "only fromJSON") << " refuses "
                                         << data.substr(0, 200);
  }
  if (members != decoded) return ::testing::AssertionFailure() << "members or shape differ in " << data.substr(0, 200);
  return ::testing::AssertionSuccess();
}

const std::vector<std::string> REFUSED = {
    // nothing, or nothing but blanks
    "", " ", "\n\t\r ",
    // scalars at the top
    "1", "-1", "1.5", "\"text\"", "\"\"", "true", "false", "null", " 1 ",
    // cut short
    "[", "[1", "[1,", "[[]", "{", "{\"", "{\"a", "{\"a\"", "{\"a\":", "{\"a\":1", "{\"a\":1,", "{\"a\":\"", "[\"\\",
    "[\"\\u12", "[\"\\ud83d", "[tru", "[-", "[1e", "[1.",
    // cut short after what is no integer
    "{\"a\":\"x\",\"b\":1",
    // more after the end
    "{} {}", "{}x", "[]]", "{}}", "{\"a\":1},", "[1] 2", "[1] x", std::string("{}\0", 3),
    // wrong grammar
    "]", "}", "[1,]", "[,1]", "[1 2]", "{\"a\":1,}", "{,}", "{\"a\" 1}", "{\"a\"}", "{1:1}", "{a:1}", "{'a':1}",
    "['a']", "[1}", "{\"a\":1]", "[True]", "[nul]", "[undefined]", "[// comment\n]", "/**/{}", "{}//",
    // wrong numbers
    "[01]", "[-01]", "[+1]", "[.5]", "[1.]", "[1e]", "[1e+]", "[--1]", "[0x1]", "[NaN]", "[Infinity]", "[-Infinity]",
    "{\"a\":01}", "{\"a\":+1}", "{\"a\":1.}", "{\"a\":NaN}",
    // numbers too large for any
    "[1e999]", "[-1e999]", "[1e309]", "[1.8e308]", "[1e99999999999]", "[" + std::string(400, '9') + "]",
    "{\"a\":1e999}", "{\"a\":1,\"b\":{\"c\":[true,-1e999]}}", "{\"a\":1e999,\"a\":1}",
    // wrong texts
    "[\"a\nb\"]", "[\"\t\"]", std::string("[\"\0\"]", 5), "[\"\\x\"]", "[\"\\u12g4\"]", "[\"\\'\"]", "{\"\n\":1}",
    // half a surrogate pair
    "[\"\\ud800\"]", "[\"\\udc00\"]", "[\"\\ud800\\u0041\"]", "[\"\\ud800\\ud800\"]", "[\"\\ud800x\"]",
    "[\"\\udc00\\ud800\"]", "{\"\\ud800\":1}", "{\"\\udfff\":1}", "{\"a\\ud83d\":1}",
    // bytes that are not UTF-8: alone, cut short, overlong, surrogates, too large
    "[\"\xFF\"]", "[\"\x80\"]", "[\"\xC3\"]", "[\"\xE2\x82\"]", "[\"\xC0\xAF\"]", "[\"\xE0\x80\x80\"]",
    "[\"\xED\xA0\x80\"]", "[\"\xF4\x90\x80\x80\"]", "[\"\xF8\x88\x80\x80\x80\"]", "{\"\xFF\":1}", "{\"a\xC3\":1}",
    "{\"\xED\xA0\x80\":1}", "\xFF{}", "{}\xFF",
    // a byte order mark, and other encodings
    "\xEF\xBB\xBF{}", std::string("\xFF\xFE{\0}\0", 6), std::string("\0{\0}", 4),
    // too deep
    nestedArrays(513), nestedObjects(513), "{\"a\":" + nestedArrays(512) + "}", std::string(100'000, '['),
    repeated("{\"a\":", 100'000)};

const std::vector<std::string> ACCEPTED = {
    // empty, with blanks
    "{}", "[]", " { } ", "\n[\t]\r\n",
    // values of every kind
    "[1]", "[\"a\"]", "[null,true,false]", "{\"a\":1}", "{\"a\":-1,\"b\":2}", "{\"\":0}", "{\"a\":0}", "{\"a\":-0}",
    "{\"a\":1.0}", "{\"a\":1e0}", "{\"a\":1e2}", "{\"a\":0.5}", "{\"a\":1e308}", "[1e-999,-1.7e308]", "{\"a\":\"1\"}",
    "{\"a\":null}", "{\"a\":true}", "{\"a\":[]}", "{\"a\":{}}", "{\"a\":[1]}", "{\"a\":{\"b\":1}}",
    "{\"a\":1,\"b\":\"x\"}", "{\"a\":\"x\",\"b\":1}", "{\"a\":{\"b\":\"x\"},\"c\":1}", "[{\"a\":1}]",
    // integers at and beyond the limits
    "{\"a\":9223372036854775807,\"b\":-9223372036854775808}", "{\"a\":9223372036854775808}",
    "{\"a\":18446744073709551615}", "{\"a\":18446744073709551616}", "{\"a\":-9223372036854775809}",
    // equal keys
    "{\"a\":1,\"a\":2}", "{\"a\":1,\"b\":3,\"a\":2}", "{\"a\":\"x\",\"a\":1}", "{\"a\":1,\"a\":\"x\"}",
    "{\"a\":{\"a\":\"x\",\"b\":1},\"a\":1}", "{\"a\":[\"x\"],\"b\":2,\"a\":1}", "{\"a\":1,\"a\":{\"a\":1}}",
    "{\"a\":null,\"b\":null,\"a\":1}", "{\"\\u0061\":1,\"a\":2}", "{\"a\":1.5,\"\\u0061\":2}",
    // escapes
    "{\"\\ud83d\\ude00\":1}", "{\"\xF0\x9F\x98\x80\":1}", "{\"\\u0000\":1}", "{\"a\\/b\\\\c\\\"\":1}",
    "[\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\"]", "{\"\x7F\":1}",
    // as deep as can be
    nestedArrays(512), nestedObjects(512)};

TEST(FromJSONTest, ThrowsForTextThatIsNoDocument) {
  for (const auto& data : REFUSED) EXPECT_TRUE(refuses([&] { fromJSON(data); })) << data.substr(0, 100);
}

TEST(FromJSONTest, AcceptsDocumentsWithAnObjectOrArrayAtTheTop) {
  for (const auto& data : ACCEPTED) EXPECT_FALSE(refuses([&] { fromJSON(data); })) << data.substr(0, 100);
}

TEST(FromJSONTest, EmptyAndNestedContainersCanBeChanged) {
  JSONValue value = fromJSON("{}");
  value.as_object()["a"] = 1;
  EXPECT_EQ(toJSON(value), "{\"a\":1}");
  value = fromJSON("{\"a\":[{}]}");
  value.at("a").at(0).as_object()["b"] = nullptr;
  value.at("a").as_array().push_back(true);
  EXPECT_EQ(toJSON(value), "{\"a\":[{\"b\":null},true]}");
}

TEST(FromJSONTest, DecodesEveryKindOfValue) {
  const JSONValue expected = {{"text", "\u00fc"}, {"integer", -7},      {"fraction", 0.25},
                              {"truth", true},    {"nothing", nullptr}, {"list", {1, "two", json::array{}}},
                              {"map", {{"k", 1}}}};
  EXPECT_EQ(fromJSON(R"({"text":"\u00fc","integer":-7,"fraction":25e-2,"truth":true,"nothing":null,
                         "list":[1,"two",[]],"map":{"k":1}})"),
            expected);
}

TEST(FromJSONTest, DecodesEscapes) {
  EXPECT_EQ(fromJSON(R"(["\"\\\/\b\f\n\r\t\u0000\u20ac\ud83d\ude00"])").at(0).as_string(),
            std::string_view("\"\\/\b\f\n\r\t\0\u20ac\U0001F600", 16));
}

TEST(FromJSONTest, KeepsIntegersExactly) {
  using Limits = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(fromJSON("[9223372036854775807,-9223372036854775808,9007199254740993]"),
            (JSONValue{Limits::max(), Limits::min(), 9007199254740993}));
}

TEST(FromJSONTest, TheLastOfEqualKeysWins) {
  EXPECT_EQ(fromJSON("{\"a\":1,\"b\":2,\"a\":\"x\"}"), (JSONValue{{"a", "x"}, {"b", 2}}));
}

TEST(IntegersFromJSONTest, AgreesWithFromJSONOnEveryDocumentOfTheTables) {
  for (const auto& data : REFUSED) EXPECT_TRUE(bothWaysAgree(data));
  for (const auto& data : ACCEPTED) EXPECT_TRUE(bothWaysAgree(data));
}

const std::string SAMPLE =
    "{\"/a b/\\u00e9\\ud83d\\ude00\":-12, \"/a b/\xC3\xBC\":9223372036854775807 ,\"/x\":0,\"/x\":[1,{\"y\":2.5e3}],"
    "\"/x\":1}\n";

TEST(IntegersFromJSONTest, AgreesWithFromJSONOnEveryDocumentCutShort) {
  for (std::size_t length = 0; length <= SAMPLE.size(); ++length)
    EXPECT_TRUE(bothWaysAgree(std::string_view(SAMPLE).substr(0, length)));
}

TEST(IntegersFromJSONTest, AgreesWithFromJSONOnEveryDocumentWithOneOtherByte) {
  for (std::size_t at = 0; at < SAMPLE.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = SAMPLE;
      changed[at] = static_cast<char>(byte);
      ASSERT_TRUE(bothWaysAgree(changed)) << "byte " << byte << " at " << at;
    }
  }
}

TEST(IntegersFromJSONTest, GivesTheMembersInTheOrderOfTheDocument) {
  std::vector<std::pair<std::string, std::int64_t>> seen;
  EXPECT_TRUE(integersFromJSON("{\"b\":2,\"a\":-1,\"\":0,\"b\":3}",
                               [&](std::string_view key, std::int64_t value) { seen.emplace_back(key, value); }));
  EXPECT_THAT(seen, ::testing::ElementsAre(::testing::Pair("b", 2), ::testing::Pair("a", -1), ::testing::Pair("", 0),
                                           ::testing::Pair("b", 3)));
}

TEST(IntegersFromJSONTest, AnEmptyObjectIsAnObjectOfIntegers) {
  EXPECT_EQ(integersIn("{}"), Integers());
}

TEST(IntegersFromJSONTest, KeepsIntegersExactlyUpToTheirLimits) {
  EXPECT_EQ(integersIn("{\"a\":9223372036854775807,\"b\":-9223372036854775808,\"c\":9007199254740993}"),
            (Integers{{"a", std::numeric_limits<std::int64_t>::max()},
                      {"b", std::numeric_limits<std::int64_t>::min()},
                      {"c", 9007199254740993}}));
}

TEST(IntegersFromJSONTest, AnythingButAnObjectOfIntegersWithinTheLimitsIsOfAnotherShape) {
  for (const char* data :
       {"[]", "[1]", "{\"a\":1.0}", "{\"a\":\"1\"}", "{\"a\":null}", "{\"a\":true}", "{\"a\":[1]}", "{\"a\":{\"b\":1}}",
        "{\"a\":1,\"b\":null}", "{\"a\":1e0}", "{\"a\":9223372036854775808}", "{\"a\":-9223372036854775809}"})
    EXPECT_EQ(integersIn(data), std::nullopt) << data;
}

TEST(IntegersFromJSONTest, ALaterIntegerUnderTheSameKeyReplacesAnotherValue) {
  EXPECT_EQ(integersIn("{\"a\":\"x\",\"b\":{\"c\":\"y\"},\"a\":1,\"b\":2}"), (Integers{{"a", 1}, {"b", 2}}));
}

TEST(IntegersFromJSONTest, TheFirstMemberThatIsNoIntegerEndsTheCollecting) {
  std::vector<std::string> seen;
  const auto collect = [&](std::string_view key, std::int64_t) { seen.emplace_back(key); };
  EXPECT_FALSE(integersFromJSON("{\"a\":1,\"b\":2,\"c\":\"x\",\"d\":3,\"e\":[4],\"f\":5}", collect));
  EXPECT_THAT(seen, ::testing::ElementsAre("a", "b"));
}

TEST(IntegersFromJSONTest, IntegersUnderTheSameKeysLaterBringEveryMember) {
  const auto document = [](int keys, std::size_t length) {
    std::string others;
    std::string integers;
    for (int i = 0; i < keys; ++i) {
      const std::string key = "\"" + std::to_string(1000 + i) + std::string(length - 4, 'k') + "\":";
      others += key + "\"x\",";
      integers += key + "7,";
    }
    return "{\"a\":1," + others + "\"b\":2," + integers + "\"a\":3}";
  };
  EXPECT_EQ(integersIn(document(1, 4)), (Integers{{"a", 3}, {"1000", 7}, {"b", 2}}));
  EXPECT_TRUE(bothWaysAgree(document(64, 4096)));
  EXPECT_EQ(integersIn(document(65, 4)), std::nullopt) << "the bound that the header names";
  EXPECT_EQ(integersIn(document(1, 4097)), std::nullopt) << "the bound that the header names";
}

TEST(BooleansFromJSONTest, PassesOnTheMembersOfAnObjectOfBooleans) {
  std::map<std::string, bool> members;
  const auto store = [&](std::string_view key, bool value) { members[std::string(key)] = value; };
  EXPECT_TRUE(booleansFromJSON("{\"1\":true,\"2\":false,\"\\u0033\":true,\"2\":true}", store));
  EXPECT_EQ(members, (std::map<std::string, bool>{{"1", true}, {"2", true}, {"3", true}}));
  EXPECT_TRUE(booleansFromJSON("{}", store));
  EXPECT_TRUE(booleansFromJSON("{\"4\":1,\"4\":false}", store)) << "of equal keys the last one wins";
  EXPECT_EQ(members.count("4"), 1U);
}

TEST(BooleansFromJSONTest, DistinguishesAnotherShapeFromTextThatIsNoJSON) {
  for (const char* data : {"[]", "[true]", "{\"1\":1}", "{\"1\":null}", "{\"1\":\"true\"}", "{\"1\":[true]}",
                           "{\"1\":{\"2\":true}}", "{\"1\":true,\"2\":0}", "{\"1\":true,\"1\":0}"}) {
    EXPECT_FALSE(booleansFromJSON(data, [](auto, auto) {})) << data;
  }
  for (const char* data : {"", "true", "{\"1\":tru", "{\"1\":1", "{} {}"})
    EXPECT_THROW(booleansFromJSON(data, [](auto, auto) {}), JSONError) << data;
}

TEST(IntegersFromJSONTest, LongKeysWithEscapesAreWhole) {
  const std::string key = repeated("name \u00e9\n/\U0001F600", 5'000);
  const std::string written = repeated("name \\u00e9\\n\\/\\ud83d\\ude00", 5'000);
  EXPECT_EQ(integersIn("{\"" + written + "\":1,\"short\":2,\"" + written + "x\":3}"),
            (Integers{{key, 1}, {"short", 2}, {key + "x", 3}}));
}

TEST(IntegersFromJSONTest, ManyMembersAreAllSeen) {
  std::string data = "{";
  Integers expected;
  for (std::int64_t i = 0; i < 20'000; ++i) {
    const std::string key = "/folder/item " + std::to_string(i);
    if (i > 0) data += ',';
    data += "\"" + key + "\":" + std::to_string(i % 4 - 1);
    expected[key] = i % 4 - 1;
  }
  EXPECT_EQ(integersIn(data + "}"), expected);
}

TEST(ToJSONTest, IsCompactAlsoWhenEmpty) {
  EXPECT_EQ(toJSON({{"dir_name", "/a/"}, {"list", {1, "x", nullptr, true}}, {"map", json::object{}}}),
            "{\"dir_name\":\"/a/\",\"list\":[1,\"x\",null,true],\"map\":{}}");
  EXPECT_EQ(toJSON(json::object{}), "{}");
  EXPECT_EQ(toJSON(json::array{}), "[]");
}

TEST(ToJSONTest, TextsAndNumbersAreValuesToo) {
  EXPECT_EQ(toJSON("a"), "\"a\"");
  EXPECT_EQ(toJSON(-12), "-12");
  EXPECT_EQ(toJSON(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
}

TEST(ToJSONTest, EscapesWhatATextMustNotHold) {
  EXPECT_EQ(toJSON(json::array{std::string_view("\"\\\b\f\n\r\t\x01\0", 9)}),
            "[\"\\\"\\\\\\b\\f\\n\\r\\t\\u0001\\u0000\"]");
}

TEST(ToJSONTest, KeepsOtherCharactersOfATextAndKey) {
  EXPECT_EQ(toJSON({{"\u00fc", "\U0001F600 \u2028"}}), "{\"\u00fc\":\"\U0001F600 \u2028\"}");
}

TEST(ToJSONTest, IsReadBackAsTheSameValue) {
  const JSONValue value = {{"a\"b", {1, -2, 0.1, 1e300, "x\n\u00e9", nullptr, false}},
                           {"", {{"k", std::numeric_limits<std::int64_t>::min()}}}};
  EXPECT_EQ(fromJSON(toJSON(value)), value);
}

using ToJSONDeathTest = ProcessStops;

TEST_F(ToJSONDeathTest, ANumberThatIsNotFiniteStopsTheProcess) {
  constexpr double INF = std::numeric_limits<double>::infinity();
  EXPECT_DEATH(toJSON(INF), "not finite");
  EXPECT_DEATH(toJSON(json::array{-INF}), "not finite");
  EXPECT_DEATH(toJSON({{"a", {{"b", {1, std::numeric_limits<double>::quiet_NaN()}}}}}), "not finite");
}

TEST_F(ToJSONDeathTest, ATextThatIsNotUTF8StopsTheProcess) {
  EXPECT_DEATH(toJSON("\xFF"), "not UTF-8");
  EXPECT_DEATH(toJSON(json::array{"\xC3"}), "not UTF-8");
  EXPECT_DEATH(toJSON({{"a", {{"b", {1, "\xED\xA0\x80"}}}}}), "not UTF-8");
}

TEST_F(ToJSONDeathTest, AKeyThatIsNotUTF8StopsTheProcess) {
  EXPECT_DEATH(toJSON({{"\xFF", 1}}), "not UTF-8");
  EXPECT_DEATH(toJSON({{"a", json::array{json::object{{"\xC0\xAF", 1}}}}}), "not UTF-8");
}

}  // namespace
}  // namespace vornet::test
