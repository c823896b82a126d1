// Nautilus with other internals than the plug-in knows: it goes by the items asked for, and nothing breaks.
#include <gmock/gmock.h>

#include <filesystem>
#include <vector>

#include "FakeSlots.hpp"
#include "FakeTab.hpp"
#include "TestHost.hpp"
#include "support/Environment.hpp"
#include "support/FakeExtension.hpp"
#include "support/PrivateBus.hpp"

namespace {

using vornet::test::Environment;
using vornet::test::FakeExtension;
using vornet::test::FakeSlots;
using vornet::test::FakeWindow;
using vornet::test::FakeWindows;
using vornet::test::PrivateBus;
using vornet::test::ScopedVariable;
using vornet::test::TestHost;
using vornet::test::urlOf;

struct MissingPart {
  const char* name;
  std::vector<bool*> exists;

  friend void PrintTo(const MissingPart& part, std::ostream* out) { *out << part.name; }
};

class OtherNautilus : public testing::TestWithParam<MissingPart> {};

TEST_P(OtherNautilus, IsServedByTheItemsThatItAsksFor) {
  for (bool* exists : GetParam().exists) *exists = false;
  const Environment environment;
  const std::string root = environment.folder() / "root";
  std::filesystem::create_directories(environment.folder().path() / "no-services");
  const PrivateBus bus(environment.folder().path() / "bus", environment.folder().path() / "no-services");
  const ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", bus.address());
  FakeWindows windows;
  TestHost host;
  FakeExtension fake(bus.address(), {urlOf(root)});
  fake.setBadge(urlOf(root + "/file"), "SYNCED");
  {
    FakeWindow window(windows, host);
    const auto tab = window.open("file://" + root + "/folder");
    const auto file = host.watchedFile(root + "/file");
    EXPECT_TRUE(host.waitUntil([&] { return file->emblems() == std::vector<std::string>{"emblem-vornet-synced"}; }));
    EXPECT_EQ(fake.observed, (std::multiset{urlOf(root)})) << "inferred, and nothing else";
    window.sendToBack(tab);
    window.bringToFront(tab);
    window.close(tab);
  }
}

INSTANTIATE_TEST_SUITE_P(NautilusWindows, OtherNautilus,
                         testing::Values(MissingPart{"ApplicationSignals", {&FakeSlots::applicationTellsOfWindows}},
                                         MissingPart{
                                             "WindowSignalsAndActiveSlot",
                                             {&FakeSlots::windowsTellOfSlots, &FakeSlots::windowsHaveActiveSlot}},
                                         MissingPart{"SlotLocation", {&FakeSlots::slotsHaveLocations}},
                                         MissingPart{"SlotActive", {&FakeSlots::slotsAreActive}}),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
