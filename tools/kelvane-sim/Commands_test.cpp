#include "kelvane-sim/Commands.hpp"

#include <gmock/gmock.h>

#include <boost/json.hpp>
#include <stdexcept>

namespace vornet::sim {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using testing::ElementsAre;

class CommandsTest : public testing::Test {
 protected:
  CommandsTest() {
    folder_.update({{"", {.folder = true}},
                    {"/a", {.folder = true}},
                    {"/a/no?", {}},
                    {"/a/sub", {.folder = true}},
                    {"/a/x", {}},
                    {"/a/\xC3\xA9 'q' & z", {}}},
                   true);
  }

  HttpReply ask(const std::string& command, const std::string& body, Fault fault = Fault::none) {
    return answer({"POST", "/" + command, body}, fault, folder_, [this](const Action& action) {
      if (isFull_) throw std::runtime_error("no room");
      performed_.push_back(action);
    });
  }
  json::value icons(const std::string& folder, Fault fault = Fault::none) {
    return parsed(ask("get_icons_for_folder", json::serialize(json::object{{"dir_name", folder}}), fault));
  }
  json::value menu(const std::vector<std::string>& paths, Fault fault = Fault::none) {
    return parsed(ask("mac_populate_menu", json::serialize(json::object{{"paths", json::value_from(paths)}}), fault));
  }
  static json::value parsed(const HttpReply& reply) {
    EXPECT_EQ(reply.status, 200) << reply.body;
    return json::parse(reply.body);
  }
  /// The status of an error reply, which says why.
  int refusal(const std::string& command, const std::string& body) {
    const auto reply = ask(command, body);
    EXPECT_TRUE(json::parse(reply.body).as_object().contains("error")) << reply.body;
    return reply.status;
  }

  SyncedFolder folder_{0ms, 1};
  std::vector<Action> performed_;
  bool isFull_ = false;
};

TEST_F(CommandsTest, IconsOfAFolderAreThoseOfItsDirectChildren) {
  EXPECT_EQ(icons("/a/"), (json::value{{"/a/no?", 0}, {"/a/sub", 2}, {"/a/x", 2}, {"/a/\xC3\xA9 'q' & z", 2}}));
  EXPECT_EQ(icons("/"), (json::value{{"/a", 0}}));
  EXPECT_EQ(icons("/a/sub/"), json::value(json::object()));
  for (const char* body : {R"({"dir_name":"/b/"})", R"({"dir_name":"/a/x/"})", R"({"dir_name":"/../"})"})
    EXPECT_EQ(refusal("get_icons_for_folder", body), 404) << body;
}

TEST_F(CommandsTest, TheMenuFollowsTheSelection) {
  const auto expected = [](const std::array<bool, 5>& enabled) {
    json::object entries;
    for (std::size_t i = 0; i < enabled.size(); ++i) entries[std::to_string(i + 1)] = enabled[i];
    return json::value(entries);
  };
  EXPECT_EQ(menu({"/a/x"}), expected({true, true, true, true, true}));
  EXPECT_EQ(menu({"/a/sub/"}), expected({true, true, true, true, false}));
  EXPECT_EQ(menu({"/a/x", "/a/sub/"}), expected({true, false, true, false, false}));
  for (const auto& none : std::vector<std::vector<std::string>>{{}, {"/a/no?"}, {"/a/x", "/gone"}, {"/a/x/"}})
    EXPECT_EQ(menu(none), expected({}));
  folder_.pin("/a/x", CODE_PENDING);
  EXPECT_EQ(menu({"/a/x"}), expected({true, true, true, true, false}));
  folder_.pin("/a/x", 7);
  EXPECT_EQ(menu({"/a/x"}), expected({}));
}

TEST_F(CommandsTest, AChosenActionIsPerformed) {
  EXPECT_EQ(ask("select_context_menu", R"({"uid":"2","paths":["/b","/a/","/b"]})").body, "{}");
  EXPECT_THAT(performed_, ElementsAre(testing::FieldsAre("2", "Copy Link", ElementsAre("/b", "/a/", "/b"))));
  isFull_ = true;
  EXPECT_EQ(refusal("select_context_menu", R"({"uid":"2","paths":["/b"]})"), 500);
}

TEST_F(CommandsTest, MalformedRequestsAreRefusedAndDoNothing) {
  for (const char* body : {"", "{", "[]", "1", R"({"dir_name":1})", R"({"dir":"/"})", R"({"dir_name":"a/"})",
                           R"({"dir_name":"/a"})", "{\"dir_name\":\"/\xFF/\"}"}) {
    EXPECT_EQ(refusal("get_icons_for_folder", body), 400) << body;
  }
  for (const char* body : {R"({"paths":"/a"})", R"({"paths":[1]})", R"({"paths":["a"]})", "{}"})
    EXPECT_EQ(refusal("mac_populate_menu", body), 400) << body;
  for (const char* body : {R"({"uid":"2"})", R"({"uid":2,"paths":["/a"]})", R"({"uid":"6","paths":["/a"]})",
                           R"({"uid":"12","paths":["/a"]})", R"({"paths":["/a"]})"}) {
    EXPECT_EQ(refusal("select_context_menu", body), 400) << body;
  }
  EXPECT_EQ(refusal("", "{}"), 404);
  EXPECT_EQ(refusal("get_icons", "{}"), 404);
  EXPECT_TRUE(performed_.empty());
}

TEST_F(CommandsTest, FaultsThatAreNoJson) {
  EXPECT_EQ(ask("get_icons_for_folder", "{}", Fault::notFound).status, 404);
  EXPECT_EQ(ask("get_icons_for_folder", "{}", Fault::serverError).status, 500);
  const auto reply = ask("get_icons_for_folder", "{}", Fault::notJSON);
  EXPECT_EQ(reply.status, 200);
  EXPECT_THROW(json::parse(reply.body), std::exception);
  EXPECT_FALSE(reply.body.empty());
  EXPECT_EQ(ask("get_icons_for_folder", "{}", Fault::emptyBody).body, "");
}

TEST_F(CommandsTest, FaultsOfTheWrongShape) {
  folder_.update({{"", {.folder = true}}, {"/x", {}}, {"/y", {}}}, true);
  EXPECT_EQ(icons("/", Fault::array), json::parse(R"(["/x",2,"/y",2])"));
  EXPECT_EQ(icons("/", Fault::stringValues), json::parse(R"({"/x":"2","/y":"2"})"));
  EXPECT_EQ(icons("/", Fault::nested), json::parse(R"({"/x":{"value":2},"/y":{"value":2}})"));
  EXPECT_EQ(icons("/", Fault::wrongValues), json::parse(R"({"/x":true,"/y":1.5})"));
  EXPECT_TRUE(menu({"/x"}, Fault::array).is_array());
  EXPECT_EQ(menu({"/x"}, Fault::stringValues).at("1"), json::value("true"));
  EXPECT_EQ(menu({"/x"}, Fault::wrongValues), json::parse(R"({"1":1,"2":1,"3":1,"4":1,"5":1})"));
  EXPECT_EQ(ask("get_icons_for_folder", R"({"dir_name":"/b/"})", Fault::array).status, 404);
  folder_.update({{"", {.folder = true}}}, true);
  EXPECT_EQ(icons("/", Fault::stringValues).as_object().size(), 1u) << "an empty folder gets something to be wrong";
}

TEST_F(CommandsTest, HugeAddsAHundredThousandEntries) {
  const auto entries = icons("/a/", Fault::hugeReply);
  EXPECT_EQ(entries.as_object().size(), 100'004u);
  EXPECT_EQ(entries.at("/a/x"), json::value(2));
  EXPECT_EQ(entries.at("/a/entry-99999"), json::value(2));
  EXPECT_EQ(menu({"/a/x"}, Fault::hugeReply).as_object().size(), 100'005u);
}

TEST_F(CommandsTest, OnlyAServerThatFailsLeavesTheActionUndone) {
  const std::string body = R"({"uid":"1","paths":["/x"]})";
  for (const Fault fault : {Fault::stall, Fault::notFound, Fault::serverError}) ask("select_context_menu", body, fault);
  EXPECT_TRUE(performed_.empty());
  for (const Fault fault : {Fault::reset, Fault::emptyBody}) ask("select_context_menu", body, fault);
  EXPECT_EQ(performed_.size(), 2u);
}

}  // namespace
}  // namespace vornet::sim
