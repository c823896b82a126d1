#include <gtest/gtest.h>

#include "kelvane-sim/SimTest.hpp"

namespace vornet::sim {
namespace {

class DefaultPortTest : public testing::SimTest {};

TEST_F(DefaultPortTest, AnswersWhereTheExtensionAsks) {
  KelvaneSim::Options chosen;
  chosen.root = files_.path("/root");
  chosen.container = files_.path("/container");
  start(chosen);
  EXPECT_EQ(sim_->port(), 8806);
  httplib::Client client("http://127.0.0.1:8806");
  const auto reply = client.Post("/get_icons_for_folder", R"({"dir_name":"/"})", "application/json");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->body, "{}");
}

}  // namespace
}  // namespace vornet::sim
