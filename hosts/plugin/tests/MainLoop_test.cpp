#include "plugin/MainLoop.hpp"

#include <gmock/gmock.h>

namespace vornet::plugin {
namespace {

using testing::ElementsAre;

void settle() {
  while (g_main_context_iteration(nullptr, FALSE)) continue;
}

TEST(SlicedWork, DoesWhatWasAddedInItsOrder) {
  SlicedWork work(nullptr);
  std::vector<int> done;
  for (int piece = 1; piece <= 3; ++piece) {
    work.add([&done, piece, left = 2]() mutable {
      done.push_back(piece);
      return --left > 0;
    });
  }
  EXPECT_TRUE(done.empty());
  settle();
  EXPECT_THAT(done, ElementsAre(1, 1, 2, 2, 3, 3));
}

TEST(SlicedWork, WhatIsAddedMeanwhileComesLast) {
  SlicedWork work(nullptr);
  std::vector<int> done;
  work.add([&] {
    done.push_back(1);
    if (done.size() == 1) {
      work.add([&] {
        done.push_back(2);
        return false;
      });
    }
    return done.size() < 3;
  });
  settle();
  EXPECT_THAT(done, ElementsAre(1, 1, 1, 2));
}

TEST(SlicedWork, LetsOthersTakeTheirTurn) {
  SlicedWork work(nullptr);
  int turns = 0;
  const auto count = +[](gpointer turn) -> gboolean { return ++*static_cast<int*>(turn) > 0; };
  const guint other = g_timeout_add(1, count, &turns);
  const gint64 begun = g_get_monotonic_time();
  bool finished = false;
  work.add([&] {
    finished = g_get_monotonic_time() - begun > 50'000;
    return !finished;
  });
  while (!finished) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(other);
  EXPECT_GE(turns, 3);
}

TEST(SlicedWork, AnExceptionEndsItsPieceAlone) {
  SlicedWork work(nullptr);
  bool next = false;
  work.add([]() -> bool { throw std::runtime_error("thrown by a test"); });
  work.add([&] {
    next = true;
    return false;
  });
  settle();
  EXPECT_TRUE(next);
}

TEST(SlicedWork, IsDoneNoMoreAfterItsEnd) {
  bool done = false;
  {
    SlicedWork work(nullptr);
    work.add([&] { return done = true; });
  }
  settle();
  EXPECT_FALSE(done);
}

TEST(Timer, CallsOnceAndMayBeStartedFromTheCall) {
  Timer timer(nullptr);
  int calls = 0;
  timer.start(std::chrono::milliseconds(1), [&] {
    if (++calls < 3) timer.start(std::chrono::milliseconds(1), [&] { ++calls; });
  });
  while (timer.isRunning()) g_main_context_iteration(nullptr, TRUE);
  EXPECT_EQ(calls, 2);
}

TEST(Timer, IsReplacedAndStopped) {
  Timer timer(nullptr);
  int which = 0;
  timer.start(std::chrono::milliseconds(0), [&] { which = 1; });
  timer.start(std::chrono::milliseconds(0), [&] { which = 2; });
  while (timer.isRunning()) g_main_context_iteration(nullptr, TRUE);
  EXPECT_EQ(which, 2);
  timer.start(std::chrono::milliseconds(0), [&] { which = 3; });
  timer.stop();
  settle();
  EXPECT_EQ(which, 2);
}

}  // namespace
}  // namespace vornet::plugin
