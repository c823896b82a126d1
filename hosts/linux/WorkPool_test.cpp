#include "WorkPool.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace vornet::host {
namespace {

TEST(WorkPool, OneThreadKeepsTheOrder) {
  WorkPool pool(1, 1000);
  std::vector<int> order;
  for (int i = 0; i < 500; ++i) EXPECT_TRUE(pool.post([&order, i] { order.push_back(i); }));
  pool.join();
  ASSERT_EQ(order.size(), 500u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(WorkPool, RefusesWorkBeyondItsLimitAndTakesItAgainAfterwards) {
  WorkPool pool(1, 2);
  std::promise<void> release;
  std::promise<void> ran;
  const auto released = release.get_future().share();
  EXPECT_TRUE(pool.post([released] { released.wait(); }));
  EXPECT_TRUE(pool.post([] {}));
  EXPECT_FALSE(pool.post([] { FAIL() << "refused work was done"; }));
  release.set_value();
  while (!pool.post([&ran] { ran.set_value(); })) std::this_thread::yield();
  ran.get_future().wait();
  pool.join();
}

TEST(WorkPool, WorkOnSeveralThreadsDoesNotWaitForOneThatBlocks) {
  WorkPool pool(2, 10);
  std::promise<void> release;
  std::promise<void> ran;
  pool.post([released = release.get_future().share()] { released.wait(); });
  pool.post([&ran] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  release.set_value();
  pool.join();
}

}  // namespace
}  // namespace vornet::host
