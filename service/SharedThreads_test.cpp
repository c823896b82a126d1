#include "SharedThreads.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <filesystem>
#include <future>
#include <iterator>
#include <thread>

#include "support/Threads.hpp"

namespace vornet::service {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t WORKS = 5;

std::size_t threadsOfProcess() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(tasks, {}));
}

/// How often its threads have waited for something.
long wakeUpsOfProcess() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

/// Works that have begun and do not end before they are told to.
class BlockedWorks {
 public:
  explicit BlockedWorks(SharedThreads& threads, std::size_t count = WORKS) : count_(count) {
    for (std::size_t i = 0; i < count_; ++i) {
      threads.run([this] {
        ++begun_;
        gate_.pass();
        ++ended_;
      });
    }
    EXPECT_TRUE(test::becomesTrue([&] { return begun_ == count_; }));
  }
  ~BlockedWorks() {
    gate_.open();
    EXPECT_TRUE(test::becomesTrue([&] { return ended_ == count_; }));
  }
  BlockedWorks(const BlockedWorks&) = delete;
  BlockedWorks& operator=(const BlockedWorks&) = delete;

 private:
  const std::size_t count_;
  test::Gate gate_;
  std::atomic<std::size_t> begun_{0};
  std::atomic<std::size_t> ended_{0};
};

TEST(SharedThreads, GrowWithTheWorkAndShrinkWhenIdle) {
  SharedThreads threads(10ms);
  EXPECT_EQ(threads.count(), 1u);
  const auto one = threadsOfProcess();  // it, and others that are not ours
  for (int round = 0; round < 3; ++round) {
    {
      const BlockedWorks works(threads);
      EXPECT_EQ(threads.count(), WORKS + 1);
    }
    EXPECT_TRUE(test::becomesTrue([&] { return threads.count() == 1; }));
    EXPECT_TRUE(test::becomesTrue([&] { return threadsOfProcess() == one; }));
  }
  threads.stop();
  EXPECT_TRUE(test::becomesTrue([&] { return threadsOfProcess() == one - 1; }));
}

TEST(SharedThreads, TheLastOneSleepsUntilThereIsWork) {
  SharedThreads threads(1ms);
  {
    const BlockedWorks works(threads);
  }
  ASSERT_TRUE(test::becomesTrue([&] { return threads.count() == 1; }));
  std::this_thread::sleep_for(100ms);
  const auto before = wakeUpsOfProcess();
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(wakeUpsOfProcess(), before + 20) << "in 500 idle periods";
  const BlockedWorks works(threads);
}

TEST(SharedThreads, TheFirstOneMayBeIdleBeforeItIsCounted) {
  for (int i = 0; i < 500; ++i) {
    const SharedThreads threads(0ms);
    EXPECT_EQ(threads.count(), 1u);
  }
}

TEST(SharedThreads, AreUsedAgainWhileTheyWait) {
  SharedThreads threads(1h);
  for (int i = 0; i < 100; ++i) {
    std::promise<void> ran;
    threads.run([&ran] { ran.set_value(); });
    ASSERT_TRUE(test::isDoneInTime(ran.get_future()));
  }
  EXPECT_LT(threads.count(), 20u) << "a few, because work may come before the last one is counted as finished";
}

TEST(SharedThreads, RunWorkThatComesWhileTheyEnd) {
  SharedThreads threads(1ms);
  for (int i = 0; i < 300; ++i) {
    {
      const BlockedWorks works(threads, 2);
    }
    std::this_thread::sleep_for(i % 3 * 500us);
  }
}

TEST(SharedThreads, KeepTimersGoingHoweverLongAllWorkIsBlocked) {
  SharedThreads threads(1ms);
  const BlockedWorks works(threads);
  for (int i = 0; i < 20; ++i) {
    boost::asio::steady_timer timer(threads.timers(), 5ms);
    std::promise<void> expired;
    timer.async_wait([&expired](const boost::system::error_code&) { expired.set_value(); });
    ASSERT_TRUE(test::isDoneInTime(expired.get_future()));
  }
}

TEST(SharedThreads, StoppedFinishWhatRunsAndTakeNoMore) {
  SharedThreads threads;
  test::Gate running;
  test::Gate gate;
  std::atomic<int> finished{0};
  threads.run([&] {
    running.open();
    gate.pass();
    ++finished;
  });
  running.pass();
  auto stopped = std::async(std::launch::async, [&] { threads.stop(); });
  EXPECT_FALSE(test::isDone(stopped));
  gate.open();
  ASSERT_TRUE(test::isDoneInTime(stopped));
  EXPECT_EQ(finished, 1);
  threads.run([&] { ++finished; });
  threads.stop();
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(threads.count(), 0u);
}

}  // namespace
}  // namespace vornet::service
