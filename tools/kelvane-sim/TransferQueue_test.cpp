#include "kelvane-sim/TransferQueue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vornet::sim {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const TransferQueue::Clock::time_point START{};

TEST(TransferQueue, FilesFinishInTheOrderTheyCameAFewAtATime) {
  TransferQueue queue(100ms, 2);
  for (const char* path : {"/a", "/b", "/c"}) queue.add(path);
  EXPECT_THAT(queue.finished(START), IsEmpty());
  EXPECT_EQ(queue.nextEnd(), START + 100ms);
  EXPECT_THAT(queue.finished(START + 99ms), IsEmpty());
  EXPECT_THAT(queue.finished(START + 100ms), UnorderedElementsAre("/a", "/b"));
  EXPECT_EQ(queue.nextEnd(), START + 200ms);
  EXPECT_THAT(queue.finished(START + 200ms), UnorderedElementsAre("/c"));
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(queue.nextEnd());
}

TEST(TransferQueue, AChangedFileBeginsAnew) {
  TransferQueue queue(100ms, 1);
  queue.add("/a");
  queue.finished(START);
  queue.add("/a");
  EXPECT_THAT(queue.finished(START + 60ms), IsEmpty());
  EXPECT_THAT(queue.finished(START + 100ms), IsEmpty());
  EXPECT_THAT(queue.finished(START + 160ms), UnorderedElementsAre("/a"));
}

TEST(TransferQueue, ACancelledFileNeverFinishes) {
  TransferQueue queue(100ms, 1);
  queue.add("/a");
  queue.add("/b");
  queue.finished(START);
  queue.cancel("/a");
  queue.cancel("/b");
  EXPECT_TRUE(queue.empty());
  EXPECT_THAT(queue.finished(START + 1h), IsEmpty());
}

TEST(TransferQueue, WithoutDurationEverythingFinishesAtOnce) {
  TransferQueue queue(0ms, 1);
  for (const char* path : {"/a", "/b", "/c"}) queue.add(path);
  EXPECT_THAT(queue.finished(START), UnorderedElementsAre("/a", "/b", "/c"));
  EXPECT_TRUE(queue.empty());
}

}  // namespace
}  // namespace vornet::sim
