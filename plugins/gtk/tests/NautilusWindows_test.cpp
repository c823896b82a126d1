// Nautilus with internals that the plug-in does not know: folders are inferred from the items asked for; nothing
// breaks.
#include <vector>

#include "support/DesktopTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/MainContext.hpp"
#include "support/gtk/FakeSlots.hpp"
#include "support/gtk/FakeTab.hpp"
#include "support/gtk/TestHost.hpp"

namespace {

using vornet::test::DesktopTest;
using vornet::test::FakeExtension;
using vornet::test::FakeSlots;
using vornet::test::FakeWindow;
using vornet::test::FakeWindows;
using vornet::test::runUntil;
using vornet::test::TestHost;
using vornet::test::urlOf;

struct MissingPart {
  const char* name;
  std::vector<bool*> exists;

  friend void PrintTo(const MissingPart& part, std::ostream* out) { *out << part.name; }
};

class OtherNautilus : public DesktopTest, public testing::WithParamInterface<MissingPart> {};

TEST_P(OtherNautilus, HasItsFoldersInferredFromTheItemsThatItAsksFor) {
  for (bool* exists : GetParam().exists) *exists = false;
  startBus(Extension::none);
  FakeWindows windows;
  TestHost host;
  FakeExtension fake(bus->address(), {urlOf(root)});
  fake.setBadge(urlOf(root + "/file"), "SYNCED");
  {
    FakeWindow window(windows, host);
    const auto tab = window.open("file://" + root + "/folder");
    const auto file = host.watchedFile(root + "/file");
    EXPECT_TRUE(runUntil([&] { return file->emblems() == std::vector<std::string>{SYNCED}; }));
    EXPECT_EQ(fake.observed, (std::multiset{urlOf(root)})) << "inferred, and nothing else";
    window.sendToBack(tab);
    window.bringToFront(tab);
    window.close(tab);
  }
}

INSTANTIATE_TEST_SUITE_P(NautilusWindows, OtherNautilus,
                         testing::Values(MissingPart{"ApplicationSignals", {&FakeSlots::applicationReportsWindows}},
                                         MissingPart{
                                             "WindowSignalsAndActiveSlot",
                                             {&FakeSlots::windowsReportSlots, &FakeSlots::windowsHaveActiveSlot}},
                                         MissingPart{"SlotLocation", {&FakeSlots::slotsHaveLocations}},
                                         MissingPart{"SlotActive", {&FakeSlots::slotsAreActive}}),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
