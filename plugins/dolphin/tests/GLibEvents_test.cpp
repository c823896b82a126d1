#include "GLibEvents.hpp"

#include <glib-unix.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "support/Environment.hpp"

namespace vornet::dolphin {
namespace {

using namespace std::chrono_literals;

int count = 1;
char name[] = "test";
char* arguments[] = {name, nullptr};

/// Qt's own event loop, which knows nothing of GLib.
class GLibEventsTest : public testing::Test {
 protected:
  /// Runs Qt's loop until `condition` holds, which is checked only when something happens; false after half a minute.
  bool runUntil(const std::function<bool()>& condition) {
    QTimer patience;
    patience.setSingleShot(true);
    patience.start(30s);
    while (!condition() && patience.isActive()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return condition();
  }

  /// How often Qt's loop wakes up until `time` is over.
  int roundsWithin(std::chrono::milliseconds time) {
    int rounds = 0;
    bool over = false;
    QTimer::singleShot(time, &application, [&] { over = true; });
    EXPECT_TRUE(runUntil([&] { return ++rounds, over; }));
    return rounds;
  }

  /// Gives `source`, which calls `function`, away to the context.
  template <typename Function>
  void attach(GSource* source, Function& function) {
    const GSourceFunc call = [](gpointer data) -> gboolean { return (*static_cast<Function*>(data))(); };
    g_source_set_callback(source, call, &function, nullptr);
    g_source_attach(source, events.context());
    g_source_unref(source);
  }
  /// Has the context set `called`, once.
  void attachIdle() { attach(g_idle_source_new(), setCalled); }

  test::ScopedVariable withoutGLib{"QT_NO_GLIB", "1"};
  QCoreApplication application{count, arguments};
  GLibEvents events;
  bool called = false;
  std::function<gboolean()> setCalled = [this] { return called = true, G_SOURCE_REMOVE; };
};

TEST_F(GLibEventsTest, IsNeededWhereQtDoesWithoutGLib) {
  EXPECT_TRUE(GLibEvents::needed());
}

TEST(GLibEvents, IsNotNeededWhereQtRunsGLibsLoop) {
  const test::ScopedVariable withGLib("QT_NO_GLIB", std::nullopt);
  QCoreApplication application(count, arguments);
  EXPECT_FALSE(GLibEvents::needed());
}

TEST_F(GLibEventsTest, DispatchesTimeoutsInTheirOrderUntilTheyEnd) {
  std::string order;
  auto late = [&] { return order += 'b', G_SOURCE_REMOVE; };
  auto twice = [&] { return order += 'a', order.size() < 2 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE; };
  attach(g_timeout_source_new(2000), late);
  attach(g_timeout_source_new(20), twice);
  EXPECT_TRUE(runUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, "aab");
}

TEST_F(GLibEventsTest, NoticesASourceThatIsAddedWhileQtWaits) {
  QTimer::singleShot(50ms, &application, [&] { attachIdle(); });
  EXPECT_TRUE(runUntil([&] { return called; }));
}

TEST_F(GLibEventsTest, NoticesASourceThatAnotherThreadAdds) {
  std::thread other([&] {
    std::this_thread::sleep_for(50ms);  // so that Qt is waiting
    attachIdle();
  });
  EXPECT_TRUE(runUntil([&] { return called; }));
  other.join();
}

TEST_F(GLibEventsTest, WatchesDescriptorsAsLongAsTheyAreWanted) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::string read;
  GSource* source = g_unix_fd_source_new(ends[0], G_IO_IN);
  const GUnixFDSourceFunc readable = [](gint descriptor, GIOCondition, gpointer data) -> gboolean {
    char byte = 0;
    if (::read(descriptor, &byte, 1) == 1) *static_cast<std::string*>(data) += byte;
    return byte == 'z' ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
  };
  g_source_set_callback(source, G_SOURCE_FUNC(readable), &read, nullptr);
  g_source_attach(source, events.context());
  g_source_unref(source);
  std::thread writer([&] {
    for (const char byte : {'x', 'y', 'z', 'a'}) EXPECT_EQ(::write(ends[1], &byte, 1), 1);
  });
  EXPECT_TRUE(runUntil([&] { return read == "xyz"; }));
  writer.join();
  roundsWithin(50ms);
  EXPECT_EQ(read, "xyz");
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(GLibEventsTest, LetsQtSleepWhileNothingHappens) {
  attachIdle();
  ASSERT_TRUE(runUntil([&] { return called; }));
  EXPECT_LE(roundsWithin(300ms), 10);
}

}  // namespace
}  // namespace vornet::dolphin
