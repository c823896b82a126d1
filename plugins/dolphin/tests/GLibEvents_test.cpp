#include "GLibEvents.hpp"

#include <glib-unix.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

  /// Has `source` call `function`.
  void setFunction(GSource* source, std::function<gboolean()> function) {
    functions.push_back(std::make_unique<std::function<gboolean()>>(std::move(function)));
    g_source_set_callback(
        source, [](gpointer data) { return (*static_cast<std::function<gboolean()>*>(data))(); },
        functions.back().get(), nullptr);
  }
  /// Gives `source` away to the context.
  void attach(GSource* source) {
    g_source_attach(source, events.context());
    g_source_unref(source);
  }
  void attach(GSource* source, std::function<gboolean()> function) {
    setFunction(source, std::move(function));
    attach(source);
  }

  test::ScopedVariable withoutGLib{"QT_NO_GLIB", "1"};
  QCoreApplication application{count, arguments};
  GLibEvents events;
  std::vector<std::unique_ptr<std::function<gboolean()>>> functions;
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
  attach(g_timeout_source_new(2000), [&] { return order += 'b', G_SOURCE_REMOVE; });
  attach(g_timeout_source_new(20), [&] {
    order += 'a';
    return order.size() < 2 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  });
  EXPECT_TRUE(runUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, "aab");
}

TEST_F(GLibEventsTest, NoticesASourceThatIsAddedWhileQtWaits) {
  bool called = false;
  QTimer::singleShot(50ms, &application,
                     [&] { attach(g_idle_source_new(), [&] { return called = true, G_SOURCE_REMOVE; }); });
  EXPECT_TRUE(runUntil([&] { return called; }));
}

TEST_F(GLibEventsTest, NoticesASourceThatAnotherThreadAdds) {
  bool called = false;
  GSource* const source = g_idle_source_new();
  setFunction(source, [&] { return called = true, G_SOURCE_REMOVE; });
  std::thread other([&] {
    std::this_thread::sleep_for(50ms);  // so that Qt is waiting
    attach(source);
  });
  EXPECT_TRUE(runUntil([&] { return called; }));
  other.join();
}

TEST_F(GLibEventsTest, WatchesDescriptorsAsLongAsTheyAreWanted) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::string read;
  GSource* source = g_unix_fd_source_new(ends[0], G_IO_IN);
  struct Context {
    std::string& read;
  } context{read};
  const auto readable = [](gint descriptor, GIOCondition, gpointer data) -> gboolean {
    char byte = 0;
    if (::read(descriptor, &byte, 1) == 1) static_cast<Context*>(data)->read += byte;
    return byte == 'z' ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
  };
  g_source_set_callback(source, G_SOURCE_FUNC(static_cast<GUnixFDSourceFunc>(readable)), &context, nullptr);
  attach(source);
  std::thread writer([&] {
    for (const char byte : {'x', 'y', 'z', 'a'}) EXPECT_EQ(::write(ends[1], &byte, 1), 1);
  });
  EXPECT_TRUE(runUntil([&] { return read == "xyz"; }));
  writer.join();
  bool later = false;
  QTimer::singleShot(50ms, &application, [&] { later = true; });
  EXPECT_TRUE(runUntil([&] { return later; }));
  EXPECT_EQ(read, "xyz");
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(GLibEventsTest, LetsQtSleepWhileNothingHappens) {
  bool begun = false;
  attach(g_idle_source_new(), [&] { return begun = true, G_SOURCE_REMOVE; });
  ASSERT_TRUE(runUntil([&] { return begun; }));
  int rounds = 0;
  bool over = false;
  QTimer::singleShot(300ms, &application, [&] { over = true; });
  runUntil([&] { return ++rounds, over; });
  EXPECT_LE(rounds, 10);
}

}  // namespace
}  // namespace vornet::dolphin
