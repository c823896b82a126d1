#include "client/MainLoop.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

#include "support/MainContext.hpp"

namespace vornet::client {
namespace {

using test::settle;
using testing::ElementsAre;

TEST(SlicedWork, RunsWorkInTheOrderInWhichItWasAddedAlsoMeanwhile) {
  SlicedWork work(nullptr);
  std::vector<int> done;
  const std::function<void(int)> add = [&](int piece) {
    work.add([&, piece, left = 2]() mutable {
      done.push_back(piece);
      if (done.size() == 1) add(4);
      return --left > 0;
    });
  };
  for (int piece = 1; piece <= 3; ++piece) add(piece);
  EXPECT_TRUE(done.empty());
  settle();
  EXPECT_THAT(done, ElementsAre(1, 1, 2, 2, 3, 3, 4, 4));
}

TEST(SlicedWork, LetsOthersTakeTheirTurn) {
  SlicedWork work(nullptr);
  int turns = 0;
  const auto count = +[](gpointer turn) -> gboolean { return ++*static_cast<int*>(turn) > 0; };
  const guint other = g_timeout_add(1, count, &turns);
  const gint64 begun = g_get_monotonic_time();
  bool finished = false;
  work.add([&] {
    finished = turns >= 3 || g_get_monotonic_time() - begun > 10'000'000;
    return !finished;
  });
  while (!finished) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(other);
  EXPECT_GE(turns, 3);
}

TEST(SlicedWork, AnExceptionEndsNoOtherPiece) {
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

/// A separate main context, in which the ids of sources begin with 1.
class OwnContext : public testing::Test {
 protected:
  ~OwnContext() override { g_main_context_unref(context_); }
  bool hasSource() const { return g_main_context_find_source_by_id(context_, 1) != nullptr; }
  GMainContext* const context_ = g_main_context_new();
};

using SlicedWorkInAContext = OwnContext;
using TimerInAContext = OwnContext;
using DisposalInAContext = OwnContext;

TEST_F(SlicedWorkInAContext, RunsNothingAfterItsEndAndLeavesNoSourceBehind) {
  bool done = false;
  {
    SlicedWork work(context_);
    work.add([&] { return done = true; });
    ASSERT_TRUE(hasSource());
  }
  EXPECT_FALSE(hasSource());
  g_main_context_iteration(context_, FALSE);
  EXPECT_FALSE(done);
}

TEST_F(TimerInAContext, LeavesNoSourceBehind) {
  {
    Timer timer(context_);
    timer.start(std::chrono::milliseconds(0), [] {});
    ASSERT_TRUE(hasSource());
  }
  EXPECT_FALSE(hasSource());
}

/// A value whose bytes record when they are freed, and whether on another thread. One at a time.
class Freed {
 public:
  Freed() : value_(g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, "x", 2, TRUE, free, this))) {
    done_ = false;
  }
  void letGo() { g_variant_unref(std::exchange(value_, nullptr)); }
  GVariant* value() const { return value_; }
  static bool done() { return done_; }
  static bool elsewhere() { return elsewhere_; }

 private:
  static void free(gpointer) {
    elsewhere_ = pthread_self() != main_;
    done_ = true;
  }
  static inline const pthread_t main_ = pthread_self();
  static inline std::atomic<bool> done_ = false;
  static inline std::atomic<bool> elsewhere_ = false;
  GVariant* value_;
};

TEST_F(DisposalInAContext, FreesAValueOnAnotherThreadWhenTheCallerHasReleasedIt) {
  Freed freed;
  Disposal disposal(context_);
  disposal.add(freed.value());
  freed.letGo();
  EXPECT_FALSE(Freed::done());
  // One iteration starts the task, another one reports its end: in this context, for the default one may never run.
  int turns = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (turns < 2 && !g_main_context_pending(nullptr) && std::chrono::steady_clock::now() < end)
    if (g_main_context_iteration(context_, FALSE)) ++turns;
  EXPECT_EQ(turns, 2);
  EXPECT_TRUE(Freed::done());
  EXPECT_TRUE(Freed::elsewhere());
}

TEST_F(DisposalInAContext, LeavesNeitherASourceNorAValueBehind) {
  Freed freed;
  {
    Disposal disposal(context_);
    disposal.add(freed.value());
    freed.letGo();
    ASSERT_TRUE(hasSource());
  }
  EXPECT_FALSE(hasSource());
  EXPECT_TRUE(Freed::done());
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
}  // namespace vornet::client
