#include "platform/Dispatch.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

#include "support/ChildProcess.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

using test::Gate;

// --- The background task

TEST(BackgroundTask, RunsOnItsOwnThread) {
  std::thread::id thread;
  BackgroundTask::start([&] { thread = std::this_thread::get_id(); }).wait();
  EXPECT_NE(thread, std::thread::id());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(BackgroundTask, LeavesThePriorityOfTheOtherThreads) {
  const int own = ::getpriority(PRIO_PROCESS, 0);
  BackgroundTask::start([] {}).wait();
  EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), own);
  EXPECT_EQ(test::onAnotherThread([] { return ::getpriority(PRIO_PROCESS, 0); }), own);
}

TEST(BackgroundTask, IsNicerThanItsProcessAndNeverLessNice) {
  for (const int least : {-20, 0, 5, 12, 19}) {
    const int own = std::max(least, ::getpriority(PRIO_PROCESS, 0));
    test::ChildProcess process([own] {
      if (::setpriority(PRIO_PROCESS, 0, own) != 0) return 100;
      int inside = -100;
      BackgroundTask::start([&inside] { inside = ::getpriority(PRIO_PROCESS, 0); }).wait();
      return inside;
    });
    EXPECT_EQ(process.wait(), std::min(std::max(own, 0) + 10, 19)) << own;
  }
}

TEST(BackgroundTask, StartsWithoutWaitingForItsWorkAndLetsSeveralThreadsWaitMoreThanOnce) {
  Gate gate;
  std::atomic<bool> ended = false;
  const auto task = BackgroundTask::start([&] {
    gate.pass();
    ended = true;
  });
  EXPECT_FALSE(ended);  // the work cannot have ended: it waits for this thread
  std::atomic<int> early = 0;
  test::inParallel(6, [&, task](std::size_t thread) {
    if (thread == 0) gate.open();
    auto copy = task;
    copy.wait();
    if (!ended) ++early;
    copy.wait();
  });
  EXPECT_EQ(early, 0);
}

TEST(BackgroundTask, ThatNeverRanNeedsNoWaiting) {
  BackgroundTask task;
  task.wait();
  task.wait();
}

TEST(BackgroundTask, EndsByItselfWhenDropped) {
  static Gate started, ended;
  {
    const auto task = BackgroundTask::start([] {
      started.pass();
      ended.open();
    });
  }
  started.open();
  ended.pass();
}

// --- The serial queue

TEST(SerialQueue, RunsOneTaskAtATimeInTheOrderInWhichEachThreadGaveThem) {
  constexpr std::size_t THREADS = 8;
  std::vector<int> numbers(500);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::vector<std::vector<int>> order(THREADS);
  std::size_t unguarded = 0;  // two tasks at once would lose some, and be seen by the thread sanitizer
  SerialQueue queue("threads");
  test::inParallel(THREADS, [&](std::size_t thread) {
    for (const int number : numbers) {
      queue.async([&, thread, number] {
        ++unguarded;
        order[thread].push_back(number);
      });
    }
  });
  queue.drain();
  EXPECT_EQ(unguarded, THREADS * numbers.size());
  EXPECT_THAT(order, testing::Each(numbers));
}

TEST(SerialQueue, RunsTasksOnAThreadWithItsLabelAsName) {
  char name[16] = {};
  std::thread::id thread;
  SerialQueue queue("a label longer than a thread's name");
  queue.async([&] {
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    thread = std::this_thread::get_id();
  });
  queue.drain();
  EXPECT_STREQ(name, "a label longer ");
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(SerialQueue, DrainsAtOnceWhenNothingWasGiven) {
  SerialQueue queue("empty");
  queue.drain();
  queue.drain();
}

TEST(SerialQueue, TakesTasksWithoutWaitingForThemAndDrainsForNoLongerThanTheGivenTime) {
  Gate gate;
  bool ran = false;
  SerialQueue queue("stuck");
  queue.async([&] { gate.pass(); });
  queue.async([&] { ran = true; });
  EXPECT_FALSE(queue.drain(std::chrono::milliseconds(10)));
  gate.open();
  EXPECT_TRUE(queue.drain(std::chrono::hours(1)));
  EXPECT_TRUE(ran);
}

TEST(SerialQueue, DrainsForSeveralThreads) {
  std::atomic<int> ran = 0;
  SerialQueue queue("drain");
  test::inParallel(4, [&](std::size_t) {
    for (int round = 0; round < 50; ++round) {
      bool own = false;
      queue.async([&] {
        own = true;
        ++ran;
      });
      queue.drain();
      EXPECT_TRUE(own);
    }
  });
  EXPECT_EQ(ran, 200);
}

TEST(SerialQueue, DrainsAlthoughTasksGoOnComing) {
  std::atomic<bool> more = true;
  bool ran = false;
  std::function<void()> again;  // outlives the queue, which may still run it at its end
  SerialQueue queue("endless");
  again = [&] {
    if (more) queue.async(again);
  };
  queue.async(again);
  queue.async([&] { ran = true; });
  queue.drain();
  EXPECT_TRUE(ran);
  more = false;
}

TEST(SerialQueue, TakesTasksFromWithinATask) {
  std::vector<int> order;
  Gate gate;
  SerialQueue queue("nested");
  queue.async([&] {
    order.push_back(1);
    queue.async([&] {
      order.push_back(3);
      gate.open();
    });
    order.push_back(2);
  });
  gate.pass();
  queue.drain();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, TakesATaskThatTheEndOfAnotherQueues) {
  bool ran = false;
  SerialQueue queue("held");
  const auto atEnd = [&](void*) { queue.async([&] { ran = true; }); };
  queue.async([held = std::shared_ptr<void>(nullptr, atEnd)] {});
  queue.drain();
  queue.drain();
  EXPECT_TRUE(ran);
}

TEST(SerialQueue, RunsQueuedTasksWhenItEnds) {
  Gate gate;
  std::vector<int> order;
  {
    SerialQueue queue("end");
    queue.async([&] { gate.pass(); });
    for (int i = 0; i < 100; ++i) queue.async([&, i] { order.push_back(i); });
    gate.open();
  }
  EXPECT_EQ(order.size(), 100u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

}  // namespace
}  // namespace vornet::platform
