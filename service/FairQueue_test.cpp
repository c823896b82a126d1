#include "FairQueue.hpp"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace vornet::service {
namespace {

using testing::ElementsAre;

const auto anyone = [](const std::string&, const std::string&) { return true; };

std::vector<std::string> takeAll(FairQueue<std::string>& queue) {
  std::vector<std::string> order;
  while (auto item = queue.take(anyone)) order.push_back(*std::move(item));
  return order;
}

TEST(FairQueue, ClientsTakeTurnsAndEachKeepsItsOrder) {
  FairQueue<std::string> queue;
  for (const char* item : {"a1", "a2", "a3"}) queue.add("a", 1, item);
  for (const char* item : {"b1", "b2"}) queue.add("b", 1, item);
  EXPECT_EQ(queue.size(), 5u);
  EXPECT_THAT(takeAll(queue), ElementsAre("a1", "b1", "a2", "b2", "a3"));
  EXPECT_EQ(queue.size(), 0u);
}

TEST(FairQueue, AClientThatAsksForLittleIsNextHoweverMuchOthersHaveQueued) {
  FairQueue<std::string> queue;
  for (int client = 0; client < 50; ++client)
    for (int i = 0; i < 3; ++i) queue.add("heavy" + std::to_string(client), 10'000, "heavy");
  for (int i = 0; i < 100; ++i) {
    queue.take(anyone);
    queue.add("light", 1, "light");
    EXPECT_EQ(queue.take(anyone), "light") << i;
  }
}

TEST(FairQueue, ManyLightCallsDoNotStarveAHeavyOne) {
  FairQueue<std::string> queue;
  queue.add("heavy", 100, "heavy");
  int before = 0;
  queue.add("light", 1, "light");
  while (queue.take(anyone) == "light") {
    ASSERT_LT(++before, 200);
    queue.add("light", 1, "light");
  }
  EXPECT_GE(before, 50) << "shares are equal";
}

TEST(FairQueue, SkipsClientsThatMayNotGoAndKeepsTheirTurn) {
  FairQueue<std::string> queue;
  queue.add("a", 1, "a1");
  queue.add("b", 5, "b1");
  const auto notA = [](const std::string& client, const std::string&) { return client != "a"; };
  const auto nobody = [](const std::string&, const std::string&) { return false; };
  EXPECT_FALSE(queue.take(nobody));
  EXPECT_TRUE(queue.has(notA));
  EXPECT_EQ(queue.take(notA), "b1");
  EXPECT_FALSE(queue.has(notA));
  EXPECT_EQ(queue.take(anyone), "a1");
}

TEST(FairQueue, ServesClientsWithoutEnd) {
  FairQueue<std::string> queue;
  for (int i = 0; i < 100'000; ++i) {
    queue.add("client" + std::to_string(i), 1, "x");
    EXPECT_TRUE(queue.take(anyone));
  }
}

}  // namespace
}  // namespace vornet::service
