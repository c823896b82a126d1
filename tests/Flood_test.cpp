// Clients that ask for more than their share, against the built program on a real bus: others are served as before, and
// the memory stays bounded. A bare echo service on the same bus shows what the bus itself costs meanwhile.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <thread>

#include "dbus/Interface.hpp"
#include "support/ExtensionTest.hpp"
#include "support/Flood.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* ECHO_SERVICE = "com.vornet.test.Echo";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

/// Asks for one badge every 20 ms, on a separate connection and thread, until told to end.
class HonestClient {
 public:
  HonestClient(const std::string& address, const char* service, const std::string& url)
      : asking_(std::async(std::launch::async, [this, address, service, url] { ask(address, service, url); })) {}
  ~HonestClient() { end(); }

  /// Stops asking once at least so many answers have come.
  void end(std::size_t atLeast = 0) {
    wanted_ = atLeast;
    ending_ = true;
    if (asking_.valid()) asking_.get();
  }

  const std::string& firstError() const { return error_; }
  std::size_t calls() const { return times_.size(); }
  std::chrono::microseconds percentile(std::size_t percent) {
    if (times_.empty()) return 0us;
    std::sort(times_.begin(), times_.end());
    return times_[std::min(times_.size() - 1, times_.size() * percent / 100)];
  }
  void print(const char* name) {
    const auto ms = [this](std::size_t percent) { return static_cast<double>(percentile(percent).count()) / 1000; };
    std::printf("  %-9s %4zu calls, p50 %7.1f ms, p99 %7.1f ms\n", name, times_.size(), ms(50), ms(99));
  }

 private:
  void ask(const std::string& address, const char* service, const std::string& url) {
    const auto connection = connectToBus(address);
    GErrorPtr error;
    while (error_.empty() && (!ending_ || times_.size() < wanted_)) {
      const auto begin = std::chrono::steady_clock::now();
      const GVariantPtr answer(
          g_dbus_connection_call_sync(connection.get(), service, dbus::OBJECT_PATH, dbus::INTERFACE, "RequestBadges",
                                      BusClient::urlArguments({url}), G_VARIANT_TYPE("(as)"),
                                      G_DBUS_CALL_FLAGS_NO_AUTO_START, 120'000, nullptr, ErrorTo(error)));
      const auto end = std::chrono::steady_clock::now();
      if (answer)
        times_.push_back(std::chrono::duration_cast<std::chrono::microseconds>(end - begin));
      else
        error_ = error->message;
      std::this_thread::sleep_until(begin + 20ms);
    }
  }

  std::atomic<bool> ending_{false};
  std::atomic<std::size_t> wanted_{0};
  std::string error_;
  std::vector<std::chrono::microseconds> times_;
  std::future<void> asking_;
};

class FloodTest : public ExtensionTest {
 protected:
  static constexpr int ITEMS = SANITIZED ? 2'000 : 10'000;

  FloodTest() {
    std::vector<std::pair<std::string, int>> rows{{"/x", 2}};
    for (int i = 0; i < ITEMS; ++i) rows.emplace_back("/d/an item of the folder " + std::to_string(i), 2);
    makeDatabase(rows);
    for (const auto& [path, code] : rows) application.setStatus(path, code);
    application.setBody("mac_populate_menu", R"({"1":true})");
    startConfigured();
    echo = launch({VORNET_ECHO, ECHO_SERVICE});
    EXPECT_TRUE(client->beginObserving(url()));
    served = process();
  }

  /// The items of the folder "d".
  std::vector<std::string> items() const {
    std::vector<std::string> result;
    for (int i = 0; i < ITEMS; ++i) result.push_back(url("d/an%20item%20of%20the%20folder%20" + std::to_string(i)));
    return result;
  }
  static GVariant* texts(const std::vector<std::string>& list) { return BusClient::urlArguments(list); }

  using Attackers = std::list<Flood>;
  Attackers manyAttackers() const {
    constexpr int MANY = SANITIZED ? 10 : 50;
    Attackers result;
    for (int i = 0; i < MANY; ++i) result.emplace_back(bus->address());
    return result;
  }

  /// The peak of the extension's memory, in MiB.
  double peak() const {
    const auto status = readFile("/proc/" + std::to_string(served) + "/status");
    const auto at = status.find("VmHWM:");
    return at == std::string::npos ? -1 : std::stod(status.substr(at + 6)) / 1024;
  }

  /// Runs `flood` while an honest client asks the extension and the echo service. Every honest call is answered, not
  /// much later than the echo service answers, and the memory stays bounded.
  template <typename Attack>
  void withstands(Attack flood) {
    HonestClient honest(bus->address(), dbus::BUS_NAME, url("x"));
    HonestClient echoed(bus->address(), ECHO_SERVICE, url("x"));
    flood();
    constexpr std::size_t FEW = 20;
    honest.end(FEW);
    echoed.end(FEW);
    honest.print("extension");
    echoed.print("echo");
    std::printf("  peak %.1f MiB\n", peak());
    EXPECT_EQ(honest.firstError(), "");
    EXPECT_GT(4 * honest.calls(), echoed.calls()) << "calls that were answered in the same time";
    EXPECT_LT(honest.percentile(90), std::max<std::chrono::microseconds>(250ms, 4 * echoed.percentile(90)));
    EXPECT_EQ(client->extensionProcess(), served) << "the extension ended";
    if (!SANITIZED) {
      EXPECT_LT(peak(), 100);
      EXPECT_GT(peak(), 0);
    }
  }
  void withstandsLongCallsOf(Attackers attackers) {
    const auto call = Flood::call("RequestBadges", texts(items()));
    withstands([&] {
      for (auto& attacker : attackers) ASSERT_TRUE(attacker.send(call, 2));
      EXPECT_TRUE(Flood::waitForAnswers(attackers, 2));
    });
  }

  SyncApplication application;
  std::unique_ptr<StartedProgram> echo;
  int served = 0;
};

TEST_F(FloodTest, ManyLongCallsOfOneClient) {
  Flood attacker(bus->address());
  const auto call = Flood::call("RequestBadges", texts(items()));
  withstands([&] {
    ASSERT_TRUE(attacker.send(call, 300));
    EXPECT_TRUE(attacker.waitForAnswers(300));
  });
  EXPECT_GT(attacker.errors("Busy"), 0u);
  EXPECT_LT(attacker.errors("Busy"), 300u) << "what has room is answered";
  EXPECT_TRUE(client->requestBadges({url("x")}));
}

TEST_F(FloodTest, SnapshotsForAClientThatNeverReads) {
  Flood attacker(bus->address());
  ASSERT_TRUE(attacker.send(Flood::call("BeginObserving", g_variant_new("(s)", url("d").c_str())), 1));
  ASSERT_TRUE(attacker.waitForAnswers(1));
  attacker.becomeDeaf();
  const auto call = Flood::call("RequestSnapshot", g_variant_new("(st)", url("d").c_str(), guint64{1}));
  withstands([&] {
    for (int round = 0; round < 20; ++round) {
      ASSERT_TRUE(attacker.send(call, 1'000));
      std::this_thread::sleep_for(100ms);
    }
  });
  ASSERT_TRUE(client->beginObserving(url("d")));
  ASSERT_TRUE(client->requestSnapshot(url("d"), 1));
  EXPECT_TRUE(client->waitUntil([&] { return client->stream(1).badges.size() == ITEMS; }));
}

TEST_F(FloodTest, SnapshotsOfALargeFolderForManyClients) {
  constexpr int MANY = SANITIZED ? 2'000 : 35'000;
  const std::string prefix(100, 'n');
  std::string statuses;
  for (int i = 0; i < MANY; ++i) statuses += (i ? ",\"/e/" : "\"/e/") + prefix + std::to_string(i) + "\":2";
  const auto gate = std::make_shared<Gate>();  // the server outlives this test's variables
  application.setAnswer("/e/", [gate, body = "{" + statuses + "}"](const WireRequest&) {
    gate->passInTime();
    return WireReply{.body = body};
  });
  auto attackers = manyAttackers();
  const auto begin = Flood::call("BeginObserving", g_variant_new("(s)", url("e").c_str()));
  const auto request = Flood::call("RequestSnapshot", g_variant_new("(st)", url("e").c_str(), guint64{1}));
  withstands([&] {
    for (auto& attacker : attackers) ASSERT_TRUE(attacker.send(begin, 1) && attacker.send(request, 1));
    EXPECT_TRUE(Flood::waitForAnswers(attackers, 2));
    ASSERT_TRUE(client->beginObserving(url("e")));
    ASSERT_TRUE(client->requestSnapshot(url("e"), 1));
    gate->open();  // and all are due
    EXPECT_TRUE(client->waitUntil([&] { return client->stream(1).badges.size() == MANY; }));
  });
}

TEST_F(FloodTest, LongCallsOfManyClients) {
  withstandsLongCallsOf(manyAttackers());
}

TEST_F(FloodTest, LongCallsOfManyClientsWhileTheFolderIsOnScreen) {
  ASSERT_TRUE(client->beginObserving(url("d")));
  withstandsLongCallsOf(manyAttackers());
}

TEST_F(FloodTest, CallsThatAreTooLarge) {
  Flood attacker(bus->address());
  const auto list = Flood::call("RequestBadges", texts(std::vector<std::string>(8, std::string(4 << 20, 'a'))));
  const auto other = Flood::call("BeginObserving", g_variant_new("(s)", std::string(32 << 20, 'a').c_str()));
  const auto tooMany = Flood::call("RequestBadges", texts(std::vector<std::string>(10'001, url("x"))));
  withstands([&] {
    for (const auto& call : {list, other, tooMany}) ASSERT_TRUE(attacker.send(call, 10));
    EXPECT_TRUE(attacker.waitForAnswers(30));
  });
  EXPECT_EQ(attacker.errors("TooManyURLs"), 20u);
  EXPECT_EQ(attacker.errors("InvalidArgs"), 10u);
}

TEST_F(FloodTest, ManyCallsToObserve) {
  Flood attacker(bus->address());
  const auto begin = Flood::call("BeginObserving", g_variant_new("(s)", url("e").c_str()));
  const auto end = Flood::call("EndObserving", g_variant_new("(s)", url("e").c_str()), false);
  withstands([&] {
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(attacker.send(begin, 1000) && attacker.send(end, 1000));
    EXPECT_TRUE(attacker.waitForAnswers(20'000));
  });
  EXPECT_TRUE(client->beginObserving(url("d")));
}

TEST_F(FloodTest, ManySmallCallsOfEveryKind) {
  Flood attacker(bus->address());
  const auto call = [](const char* interface, const char* member, GVariant* arguments) {
    return Flood::callTo(dbus::BUS_NAME, dbus::OBJECT_PATH, interface, member, arguments);
  };
  const std::vector<std::string> calls{
      call("org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", dbus::INTERFACE)),
      call("org.freedesktop.DBus.Introspectable", "Introspect", nullptr),
      call("org.freedesktop.DBus.Peer", "Ping", nullptr),
      call(dbus::INTERFACE, "RequestBadges", g_variant_new("(s)", "no list")),
      Flood::callTo(dbus::BUS_NAME, "/no/such/object", "", "Nothing", nullptr),
  };
  withstands([&] {
    for (const auto& bytes : calls) ASSERT_TRUE(attacker.send(bytes, 4000));
    EXPECT_TRUE(attacker.waitForAnswers(20'000));
  });
  EXPECT_NE(client->property("Version"), "");
}

TEST_F(FloodTest, CallsWithoutAnAnswerReleaseTheirRoom) {
  Flood attacker(bus->address());
  const auto badges = Flood::call("RequestBadges", texts({url("x")}), false);
  const auto begin = Flood::call("BeginObserving", g_variant_new("(s)", url("e").c_str()), false);
  withstands([&] { ASSERT_TRUE(attacker.send(badges, 5000) && attacker.send(begin, 5000)); });
  // The client that sent them gets answers again once they are finished.
  const auto asked = Flood::call("RequestBadges", texts({url("x")}));
  std::size_t sent = 0;
  EXPECT_TRUE(client->waitUntil([&] {
    EXPECT_TRUE(attacker.send(asked, 1) && attacker.waitForAnswers(++sent));
    return attacker.errors("Busy") < sent;
  }));
}

TEST_F(FloodTest, WaitingCallsGoOnThoughNothingElseComes) {
  Flood alone(bus->address());
  ASSERT_TRUE(alone.send(Flood::call("RequestBadges", texts({url("x")})), 200));
  EXPECT_TRUE(alone.waitForAnswers(200));
  EXPECT_EQ(alone.errors("Busy"), 0u);
  // Without answers too: the last call is carried out after all the others.
  ASSERT_TRUE(alone.send(Flood::call("RequestBadges", texts({url("x")}), false), 200));
  ASSERT_TRUE(alone.send(Flood::call("RequestBadges", texts({url("x")})), 1));
  EXPECT_TRUE(alone.waitForAnswers(201));
}

TEST_F(FloodTest, MenusOfOneClientWhileTheSyncApplicationHangs) {
  application.stall("mac_populate_menu");
  Flood attacker(bus->address());
  const auto call = Flood::call("GetMenu", texts({url("x")}));
  withstands([&] {
    ASSERT_TRUE(attacker.send(call, 500));
    EXPECT_TRUE(attacker.waitForAnswers(500 - 64));  // the refused ones
    EXPECT_EQ(menu({"x"}).size(), 5u);
    EXPECT_LT(attacker.answers(), 500u) << "one client's menus took their turns before another's";
  });
  EXPECT_EQ(attacker.errors("Busy"), 500u - 64);
}

TEST_F(FloodTest, ADepartureIsNoticedInAFlood) {
  std::optional<BusClient> leaving(bus->address());
  ASSERT_TRUE(leaving->beginObserving(url("d")));
  Flood attacker(bus->address());
  const auto begin = Flood::call("BeginObserving", g_variant_new("(s)", url("e").c_str()));
  withstands([&] {
    ASSERT_TRUE(attacker.send(begin, 15'000));
    leaving.reset();
    ASSERT_TRUE(attacker.send(begin, 15'000));
    EXPECT_TRUE(attacker.waitForAnswers(30'000));
  });
  EXPECT_TRUE(waitForLog("Directory exit: " + root + "/d\n"));
}

}  // namespace
}  // namespace vornet::test
