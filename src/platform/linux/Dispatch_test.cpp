#include "platform/Dispatch.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "support/ChildProcess.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

using test::Gate;

std::string nameOfThisThread() {
  char name[16] = {};
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  return name;
}

// --- The background task

TEST(BackgroundTask, RunsOnItsOwnThread) {
  std::thread::id thread;
  BackgroundTask::start([&] { thread = std::this_thread::get_id(); }).wait();
  EXPECT_NE(thread, std::thread::id());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(BackgroundTask, StartsWithoutWaitingForItsWork) {
  Gate gate;
  std::atomic<bool> ran = false;
  auto task = BackgroundTask::start([&] {
    gate.pass();
    ran = true;
  });
  EXPECT_FALSE(ran);  // the work cannot have ended: it waits for this thread
  gate.open();
  task.wait();
  EXPECT_TRUE(ran);
}

TEST(BackgroundTask, RunsAtBackgroundPriorityAndLeavesTheOthers) {
  const int own = ::getpriority(PRIO_PROCESS, 0);
  int inside = -100;
  BackgroundTask::start([&] { inside = ::getpriority(PRIO_PROCESS, 0); }).wait();
  EXPECT_EQ(inside, std::min(std::max(own, 0) + 10, 19));
  EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), own);
  int other = -100;
  std::thread([&] { other = ::getpriority(PRIO_PROCESS, 0); }).join();
  EXPECT_EQ(other, own);
}

TEST(BackgroundTask, IsNicerThanANiceProcessAndNeverLessNice) {
  for (const int own : {0, 5, 12, 19}) {
    test::ChildProcess process([own] {
      if (::setpriority(PRIO_PROCESS, 0, std::max(own, ::getpriority(PRIO_PROCESS, 0))) != 0) return 100;
      int inside = -100;
      BackgroundTask::start([&inside] { inside = ::getpriority(PRIO_PROCESS, 0); }).wait();
      return inside;
    });
    EXPECT_EQ(process.wait(), std::min(std::max(own, ::getpriority(PRIO_PROCESS, 0)) + 10, 19)) << own;
  }
}

TEST(BackgroundTask, LetsSeveralThreadsWaitMoreThanOnce) {
  Gate gate;
  std::atomic<bool> ended = false;
  auto task = BackgroundTask::start([&] {
    gate.pass();
    ended = true;
  });
  std::atomic<int> early = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, copy = task]() mutable {
      copy.wait();
      if (!ended) ++early;
      copy.wait();
    });
  }
  gate.open();
  task.wait();
  EXPECT_TRUE(ended);
  task.wait();
  for (auto& thread : threads) thread.join();
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

TEST(SerialQueue, RunsTasksInTheOrderGiven) {
  std::vector<int> order;
  SerialQueue queue("order");
  for (int i = 0; i < 1000; ++i) queue.async([&order, i] { order.push_back(i); });
  queue.drain();
  ASSERT_EQ(order.size(), 1000u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(SerialQueue, RunsOneTaskAtATimeAndKeepsEachThreadsOrder) {
  constexpr std::size_t THREADS = 8;
  constexpr int TASKS = 500;
  std::vector<std::vector<int>> order(THREADS);
  int unguarded = 0;  // two tasks at once would lose some, and be seen by the thread sanitizer
  SerialQueue queue("threads");
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < TASKS; ++i) {
        queue.async([&, thread, i] {
          ++unguarded;
          order[thread].push_back(i);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue.drain();
  EXPECT_EQ(unguarded, static_cast<int>(THREADS) * TASKS);
  for (const auto& tasks : order) EXPECT_TRUE(std::is_sorted(tasks.begin(), tasks.end()));
}

TEST(SerialQueue, TakesATaskWithoutWaitingForIt) {
  Gate gate;
  bool ran = false;
  SerialQueue queue("async");
  queue.async([&] {
    gate.pass();
    ran = true;
  });
  queue.async([] {});
  gate.open();  // not reached if the first task had to end before
  queue.drain();
  EXPECT_TRUE(ran);
}

TEST(SerialQueue, RunsTasksOnAThreadWithItsLabelAsName) {
  std::string name;
  std::thread::id thread;
  SerialQueue queue("a label longer than a thread's name");
  queue.async([&] {
    name = nameOfThisThread();
    thread = std::this_thread::get_id();
  });
  queue.drain();
  EXPECT_EQ(name, "a label longer ");
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(SerialQueue, DrainsAtOnceWhenNothingWasGiven) {
  SerialQueue queue("empty");
  queue.drain();
  queue.drain();
}

TEST(SerialQueue, GivesUpDrainingAfterTheGivenTimeAndRunsTheRestAllTheSame) {
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
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
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
  }
  for (auto& thread : threads) thread.join();
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
  {
    SerialQueue queue("held");
    const auto atEnd = [&](void*) { queue.async([&] { ran = true; }); };
    queue.async([held = std::shared_ptr<void>(nullptr, atEnd)] {});
    queue.drain();
    queue.drain();
    EXPECT_TRUE(ran);
  }
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
