#include "WorkPool.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "support/Threads.hpp"

namespace vornet::service {
namespace {

using test::Gate;
using testing::ElementsAre;

constexpr std::size_t LONG = WorkPool::LARGEST_SHORT_COST + 1;

class WorkPoolTest : public testing::Test {
 protected:
  /// Gives the pool work, and waits until it has run; false when it does not.
  static bool runs(WorkPool& pool, const std::string& client, std::size_t cost) {
    std::promise<void> ran;
    pool.post(client, cost, [&ran] { ran.set_value(); });
    return test::isDoneInTime(ran.get_future());
  }

  Gate gate;
  SharedThreads threads;
};

TEST_F(WorkPoolTest, OneThreadRunsLongWorkTooAndKeepsTheOrderOfAClient) {
  WorkPool pool(threads, 1);
  std::vector<int> order;
  for (int i = 0; i < 500; ++i) pool.post("client", i % 2 ? 1 : LONG, [&order, i] { order.push_back(i); });
  pool.join();
  ASSERT_EQ(order.size(), 500u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(WorkPoolTest, ClientsTakeTurns) {
  WorkPool pool(threads, 1);
  std::vector<std::string> order;
  pool.postOwn([this] { gate.pass(); });
  for (const char* client : {"a", "a", "a", "b", "b"})
    pool.post(client, 10, [&order, client] { order.emplace_back(client); });
  gate.open();
  pool.join();
  EXPECT_THAT(order, ElementsAre("a", "b", "a", "b", "a"));
}

TEST_F(WorkPoolTest, ItsOwnersWorkRunsSoonHoweverMuchWaits) {
  WorkPool pool(threads, 1);
  std::atomic<int> ran{0};
  int before = -1;
  pool.postOwn([this] { gate.pass(); });
  for (int i = 0; i < 50'000; ++i) pool.post("client", 1, [&ran] { ++ran; });
  pool.postOwn([&ran, &before] { before = ran; });
  gate.open();
  pool.join();
  EXPECT_EQ(ran, 50'000);
  EXPECT_GE(before, 0);
  EXPECT_LT(before, 10);
}

TEST_F(WorkPoolTest, LongWorkLeavesAThreadForShortWork) {
  WorkPool pool(threads, 3);
  std::atomic<int> longRan{0};
  // The other client has had more than its share, so it comes after whatever long work may run.
  for (int i = 0; i < 20; ++i) pool.post("another", WorkPool::LARGEST_SHORT_COST, [] {});
  ASSERT_TRUE(runs(pool, "another", 1));
  for (int i = 0; i < 10; ++i) {
    pool.post("client" + std::to_string(i), LONG, [&] {
      gate.pass();
      ++longRan;
    });
  }
  EXPECT_TRUE(runs(pool, "another", WorkPool::LARGEST_SHORT_COST));
  gate.open();
  pool.join();
  EXPECT_EQ(longRan, 10) << "what had to wait for a thread is run later";
}

TEST_F(WorkPoolTest, LongWorkGivesWayToShortWorkOfWhoeverHasTheTurn) {
  WorkPool pool(threads, 1);
  std::vector<std::string> order;
  const auto note = [&order](const char* what) { return [&order, what] { order.emplace_back(what); }; };
  Gate running;
  pool.post("a", LONG, [&] {
    running.open();
    gate.pass();
    for (int i = 0; i < 3; ++i) {
      order.emplace_back("a");
      pool.giveWay();
    }
  });
  running.pass();
  pool.post("b", LONG, note("long b"));
  pool.post("c", 5, [&] {
    order.emplace_back("c");
    pool.giveWay();  // short work, and within other work: it does not
  });
  pool.post("d", 6, note("d"));
  gate.open();
  pool.join();
  EXPECT_THAT(order, ElementsAre("a", "c", "a", "d", "a", "long b"));
}

TEST_F(WorkPoolTest, RunsAsMuchAtOnceAsItsBoundAndNoMore) {
  WorkPool pool(threads, 3);
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  for (int i = 0; i < 30; ++i) {
    pool.post("client", 1, [&] {
      const int now = ++running;
      for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
      gate.pass();
      --running;
    });
  }
  EXPECT_TRUE(test::becomesTrue([&] { return running == 3; }));
  gate.open();
  pool.join();
  EXPECT_EQ(most, 3);
}

TEST_F(WorkPoolTest, DoesNotWaitForAnotherPool) {
  WorkPool blocked(threads, 2);
  WorkPool pool(threads, 1);
  for (int i = 0; i < 10; ++i) blocked.post("client", 1, [this] { gate.pass(); });
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(runs(pool, "client", 1));
  gate.open();
  blocked.join();
  pool.join();
}

TEST_F(WorkPoolTest, StoppedItFinishesWhatRunsAndDropsTheRest) {
  WorkPool pool(threads, 1);
  Gate running;
  std::atomic<int> ran{0};
  pool.post("client", 1, [&] {
    running.open();
    gate.pass();
    ++ran;
  });
  for (int i = 0; i < 10; ++i) pool.post("client", 1, [&ran] { ++ran; });
  running.pass();
  pool.requestStop();
  pool.post("client", 1, [&ran] { ++ran; });
  gate.open();
  pool.stop();
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace vornet::service
