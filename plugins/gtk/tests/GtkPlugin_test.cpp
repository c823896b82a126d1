// The built plug-in as the file manager loads it, on a real message bus: emblems and menus. Compiled for each file
// manager.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>

#include "support/CapturedOutput.hpp"
#include "support/DesktopTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/MainContext.hpp"
#include "support/gtk/TestHost.hpp"

namespace {

using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using vornet::gtk::manager::COMPLETE;
using vornet::test::BusClient;
using vornet::test::CapturedOutput;
using vornet::test::DesktopTest;
using vornet::test::FakeExtension;
using vornet::test::FakeFile;
using vornet::test::readFile;
using vornet::test::runUntil;
using vornet::test::TestHost;
using vornet::test::urlOf;
using vornet::test::writeFile;

namespace fs = std::filesystem;

// VORNET_PLUGIN_SUITE: the suite's name, with the file manager's in it.
class VORNET_PLUGIN_SUITE : public DesktopTest {
 protected:
  VORNET_PLUGIN_SUITE() : DesktopTest({"/file", "/other", "/third", "/folder/"}) {}

  /// A bus with the real extension, or with none, and the plug-in.
  void start(Extension extension) {
    startBus(extension);
    host.emplace();
  }
  void startReal() {
    startApplication();
    start(Extension::real);
  }
  void startFake() {
    start(Extension::none);
    startFakeOnly();
  }
  void startFakeOnly() {
    fake.emplace(bus->address(), std::vector{urlOf(root)});
    fake->menu = FakeExtension::ALL;
  }
  void setBadge(const std::string& name, const std::string& identifier) {
    fake->setBadge(urlOf(root + "/" + name), identifier);
  }

  std::unique_ptr<FakeFile> shown(const std::string& name) { return host->watchedFile(root + "/" + name); }
  /// True if the file gets this emblem, and no other, and its words; "" for none.
  bool becomes(const FakeFile& file, const std::string& emblem) {
    std::vector<std::string> wanted;
    if (!emblem.empty()) wanted.push_back(emblem);
    if (!runUntil([&] { return file.questions() > 0 && file.emblems() == wanted; })) return false;
    EXPECT_EQ(file.text(COLUMN), WORDS.at(emblem));
    return true;
  }
  /// The menu of `files` once the extension has answered.
  std::vector<TestHost::Entry> answeredMenu(const std::vector<FakeFile*>& files) {
    std::vector<TestHost::Entry> entries;
    runUntil([&] {
      entries = host->menu(files);
      return std::ranges::any_of(entries, &TestHost::Entry::sensitive);
    });
    return entries;
  }

  static constexpr const char* COLUMN = "VornetVI::sync_status";  // users write it into settings
  const std::map<std::string, std::string> WORDS = {
      {SYNCED, "Synced"}, {PENDING, "Sync in progress"}, {SKIPPED, "Not synced"}, {"", ""}};

  std::optional<TestHost> host;
  std::optional<FakeExtension> fake;
};

// --- Emblems --------------------------------------------------------------------------------------------------------

TEST_F(VORNET_PLUGIN_SUITE, ShowsTheEmblemsOfAllThreeKindsAutomatically) {
  writeFile(root + "/lock.tmp", "");
  startReal();
  application->setStatus("/other", 1);
  const auto synced = shown("file"), pending = shown("other"), skipped = shown("lock.tmp"), folder = shown("folder");
  EXPECT_TRUE(becomes(*synced, SYNCED));
  EXPECT_TRUE(becomes(*pending, PENDING));
  EXPECT_TRUE(becomes(*skipped, SKIPPED));
  EXPECT_TRUE(becomes(*folder, SYNCED));
}

TEST_F(VORNET_PLUGIN_SUITE, ShowsAChangeAutomatically) {
  startReal();
  const auto file = shown("file");
  ASSERT_TRUE(becomes(*file, SYNCED));
  application->setStatus("/file", 1);
  EXPECT_TRUE(becomes(*file, PENDING));
  application->setStatus("/file", 2);
  EXPECT_TRUE(becomes(*file, SYNCED));
}

TEST_F(VORNET_PLUGIN_SUITE, RemovesTheEmblemOfAnEmptiedIdentifier) {
  startFake();
  setBadge("file", "SYNCED");
  const auto file = shown("file");
  ASSERT_TRUE(becomes(*file, SYNCED));
  setBadge("file", "");
  EXPECT_TRUE(becomes(*file, ""));
  EXPECT_EQ(file->questions(), 3) << "at first, with the badge, and without";
}

TEST_F(VORNET_PLUGIN_SUITE, ShowsNothingOutsideTheSyncedFolder) {
  const std::string outside = environment.folder() / "outside", sibling = root + "2/file";
  writeFile(outside, "");
  writeFile(sibling, "");
  startReal();
  std::vector<std::unique_ptr<FakeFile>> others;
  for (const auto& file :
       {outside, sibling, std::string("/"), std::string("trash:///file"), std::string("sftp://host") + root + "/file",
        std::string("recent:///1234"), std::string("file://host") + root + "/file", std::string("file:///%00"),
        std::string("file:"), std::string()}) {
    others.push_back(file.starts_with("/") ? host->watchedFile(file) : host->file(file));
    others.back()->watch();
  }
  const auto inside = shown("file");
  ASSERT_TRUE(becomes(*inside, SYNCED));
  for (const auto& other : others) EXPECT_TRUE(becomes(*other, ""));
}

TEST_F(VORNET_PLUGIN_SUITE, ShowsTheEmblemsOfOddNames) {
  startFake();
  std::string deep = "folder";
  while (deep.size() < 3000) deep += "/" + std::string(200, 'd');
  const std::vector<std::string> names = {"with space",
                                          "with:colon",
                                          "100%",
                                          "a#b?c",
                                          "%41",
                                          "new\nline",
                                          "tab\tand\x01 control",
                                          "quote\"s'",
                                          "back\\slash",
                                          "-dash",
                                          "smile \xF0\x9F\x98\x80",
                                          "caf\xC3\xA9",
                                          "cafe\xCC\x81",
                                          std::string(255, 'x'),
                                          deep};
  std::vector<std::unique_ptr<FakeFile>> files;
  for (std::size_t i = 0; i < names.size(); ++i) {
    setBadge(names[i], i % 2 ? "PENDING" : "SYNCED");
    files.push_back(shown(names[i]));
  }
  const auto bytes = shown("caf\xE9");
  for (std::size_t i = 0; i < names.size(); ++i) EXPECT_TRUE(becomes(*files[i], i % 2 ? PENDING : SYNCED)) << names[i];
  EXPECT_TRUE(becomes(*bytes, ""));
  EXPECT_THAT(fake->badgeRequests, Each(Not(testing::Contains(urlOf(root + "/caf\xE9"))))) << "it never has a badge";
}

TEST_F(VORNET_PLUGIN_SUITE, AsksForAFileThroughALinkByTheLinksPath) {
  startFake();
  fs::create_directory_symlink("folder", root + "/link");
  setBadge("link/inside", "SYNCED");
  const auto file = shown("link/inside");
  EXPECT_TRUE(becomes(*file, SYNCED));
}

TEST_F(VORNET_PLUGIN_SUITE, KeepsNoFileAliveAndForgetsThoseThatAreGone) {
  startFake();
  setBadge("file", "SYNCED");
  setBadge("other", "SYNCED");
  const auto file = shown("file");
  auto other = shown("other");
  ASSERT_TRUE(becomes(*file, SYNCED));
  ASSERT_TRUE(becomes(*other, SYNCED));
  EXPECT_EQ(file->otherReferences(), 0u);
  EXPECT_EQ(other->otherReferences(), 0u);
  other.reset();
  setBadge("other", "PENDING");
  setBadge("file", "PENDING");
  EXPECT_TRUE(becomes(*file, PENDING)) << "reported after the one that is gone";
}

// --- The column -----------------------------------------------------------------------------------------------------

TEST_F(VORNET_PLUGIN_SUITE, OffersTheColumnSyncStatus) {
  start(Extension::none);
  const auto columns = host->columns();
  ASSERT_THAT(columns, SizeIs(1));
  EXPECT_EQ(columns[0].name, COLUMN);
  EXPECT_EQ(columns[0].attribute, COLUMN);
  EXPECT_EQ(columns[0].label, "Sync status");
  EXPECT_EQ(columns[0].description, "Whether the item is synced");
}

TEST_F(VORNET_PLUGIN_SUITE, SaysInTheColumnWhatTheEmblemShows) {
  startFake();
  const auto file = shown("file");
  for (const auto& [badge, emblem] :
       {std::pair{"SYNCED", SYNCED}, {"PENDING", PENDING}, {"SKIPPED", SKIPPED}, {"", ""}}) {
    setBadge("file", badge);
    EXPECT_TRUE(becomes(*file, emblem)) << badge;
  }
}

TEST_F(VORNET_PLUGIN_SUITE, HasTheWordsOfTheExtensionInTheColumn) {
  startReal();
  const auto file = shown("file");
  ASSERT_TRUE(becomes(*file, SYNCED));
  const auto labels = BusClient(bus->address()).property("Badges");
  for (const auto& [badge, emblem] : {std::pair{"SYNCED", SYNCED}, {"PENDING", PENDING}, {"SKIPPED", SKIPPED}})
    EXPECT_THAT(labels, HasSubstr(std::string("('") + badge + "', '" + WORDS.at(emblem) + "', "));
}

// --- The menu -------------------------------------------------------------------------------------------------------

TEST_F(VORNET_PLUGIN_SUITE, GreysTheEntriesUntilTheExtensionHasAnsweredAndSaysWhenItHas) {
  startFake();
  fake->hold("GetMenu");
  const auto file = shown("file");
  ASSERT_TRUE(runUntil([&] { return host->menu({file.get()}).size() == 5; })) << "the synced folder is known";
  ASSERT_TRUE(runUntil([&] { return !fake->menuRequests.empty(); }));
  EXPECT_THAT(host->menu({file.get()}), Each(Field(&TestHost::Entry::sensitive, false)));
  const int updates = host->itemsUpdated();
  fake->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return host->itemsUpdated() > updates; }));
  const auto entries = host->menu({file.get()});
  ASSERT_THAT(entries, SizeIs(5));
  std::vector<std::string> labels, names;
  for (const auto& entry : entries) {
    labels.push_back(entry.label + (entry.sensitive ? "" : " (greyed)"));
    names.push_back(entry.name);
    EXPECT_EQ(entry.icon, "vornet-vi");
  }
  EXPECT_THAT(labels, ElementsAre("Share", "Copy Link", "Comments", "View versions (greyed)", "View in Cloud"));
  std::ranges::sort(names);
  EXPECT_EQ(std::ranges::adjacent_find(names), names.end()) << "each is found by its name";
}

TEST_F(VORNET_PLUGIN_SUITE, TheTipOfAGreyedEntrySaysThatTheSyncApplicationIsAway) {
  startFake();
  const auto file = shown("file");
  const auto tip = [&](std::size_t entry) { return host->menu({file.get()}).at(entry).tip; };
  ASSERT_THAT(answeredMenu({file.get()}), SizeIs(5));
  EXPECT_EQ(tip(3), "View versions");
  fake->changeProperty("SyncApplicationSilentSince", g_variant_new_int64(1'772'354'460));
  EXPECT_TRUE(runUntil([&] { return tip(3) == "Kelvane is not running"; }));
  EXPECT_EQ(tip(0), "Share");
}

TEST_F(VORNET_PLUGIN_SUITE, PerformsAChoiceOnExactlyTheSelectionThatItWasShownFor) {
  startReal();
  const auto file = shown("file"), other = shown("other"), third = shown("third");
  const auto entries = answeredMenu({file.get(), other.get()});
  ASSERT_THAT(entries, SizeIs(5));
  ASSERT_THAT(host->menu({third.get()}), SizeIs(5)) << "selected since";
  entries[1].activate();
  ASSERT_TRUE(runUntil([&] { return application->waitForActions(1, 0ms); }));
  EXPECT_THAT(application->actions()[0].paths, ElementsAre("/file", "/other"));
  EXPECT_EQ(application->actions().size(), 1u);
}

TEST_F(VORNET_PLUGIN_SUITE, PerformsAChoiceOfAMenuWhoseFilesAreGone) {
  startFake();
  auto shownFile = shown("with space#");
  const auto entries = answeredMenu({shownFile.get()});
  ASSERT_THAT(entries, SizeIs(5));
  shownFile.reset();
  entries[0].activate();
  entries[4].activate();
  ASSERT_TRUE(runUntil([&] { return fake->actions.size() == 2; }));
  const auto file = urlOf(root + "/with space#");
  EXPECT_THAT(fake->actions,
              testing::UnorderedElementsAre(ElementsAre("share:", file), ElementsAre("viewInCloud:", file)));
}

TEST_F(VORNET_PLUGIN_SUITE, HasNoEntriesForNothingForABackgroundAndOutsideTheSyncedFolder) {
  startFake();
  const auto file = shown("file"), folder = shown("folder");
  ASSERT_THAT(answeredMenu({file.get()}), SizeIs(5));
  const auto outside = host->file(environment.folder() / "outside"), trash = host->file("trash:///file");
  EXPECT_THAT(host->menu({}), IsEmpty());
  EXPECT_THAT(host->backgroundMenu(*folder), IsEmpty());
  EXPECT_THAT(host->menu({outside.get()}), IsEmpty());
  EXPECT_THAT(host->menu({file.get(), outside.get()}), IsEmpty());
  EXPECT_THAT(host->menu({file.get(), trash.get()}), IsEmpty());
  EXPECT_THAT(host->menu({trash.get(), file.get()}), IsEmpty());
  EXPECT_THAT(host->menu({file.get(), folder.get()}), SizeIs(5));
}

TEST_F(VORNET_PLUGIN_SUITE, DoesNotAskForTheMenuOfAnEnormousSelection) {
  startFake();
  const auto file = shown("file");
  ASSERT_THAT(answeredMenu({file.get()}), SizeIs(5));
  std::vector<std::unique_ptr<FakeFile>> files;
  std::vector<FakeFile*> selection;
  for (int i = 0; i < 1001; ++i) {
    files.push_back(host->file(root + "/" + std::to_string(i)));
    selection.push_back(files.back().get());
  }
  const auto asked = fake->menuRequests.size();
  const auto entries = host->menu(selection);
  ASSERT_THAT(entries, SizeIs(5));
  EXPECT_THAT(entries, Each(Field(&TestHost::Entry::sensitive, false)));
  // The next request to arrive is another selection's.
  const auto other = shown("other");
  host->menu({other.get()});
  ASSERT_TRUE(runUntil([&] { return fake->menuRequests.size() > asked; }));
  EXPECT_THAT(fake->menuRequests[asked], ElementsAre(urlOf(root + "/other")));
}

TEST_F(VORNET_PLUGIN_SUITE, StopsAskingWithSeveralWindowsThatEachAskForTheirOwnSelection) {
  startFake();
  const auto first = shown("file"), second = shown("other"), third = shown("third");
  const auto outside = host->file(environment.folder() / "outside");
  const std::vector<std::vector<FakeFile*>> selections = {
      {first.get()}, {second.get()}, {}, {third.get(), first.get()}, {outside.get()}};
  std::vector<std::vector<TestHost::Entry>> menus(selections.size());
  int updates = -1;
  const auto askAgain = [&] {
    if (updates == host->itemsUpdated()) return;
    updates = host->itemsUpdated();
    for (std::size_t i = 0; i < selections.size(); ++i) menus[i] = host->menu(selections[i]);
  };
  const auto isAnswered = [&](std::size_t i) { return std::ranges::any_of(menus[i], &TestHost::Entry::sensitive); };
  ASSERT_TRUE(runUntil([&] {
    askAgain();
    return isAnswered(0) && isAnswered(1) && isAnswered(3);
  })) << fake->menuRequests.size();
  EXPECT_THAT(menus[2], IsEmpty());
  EXPECT_THAT(menus[4], IsEmpty());
  // Only the requests of one more window arrive.
  const auto asked = fake->menuRequests.size();
  const auto last = shown("last");
  host->menu({last.get()});
  ASSERT_TRUE(runUntil([&] {
    askAgain();
    return std::ranges::count(fake->menuRequests, std::vector{urlOf(root + "/last")}) > 0;
  }));
  EXPECT_LE(asked, 4u + 4u) << "each selection once, or once more when another came between";
  EXPECT_LE(fake->menuRequests.size(), asked + 2);
}

// --- Coming and going -----------------------------------------------------------------------------------------------

TEST_F(VORNET_PLUGIN_SUITE, KeepsTheEmblemsOfAKilledExtensionAndShowsWhatItsSuccessorSays) {
  startReal();
  const auto file = shown("file"), other = shown("other");
  ASSERT_TRUE(becomes(*file, SYNCED));
  ASSERT_TRUE(becomes(*other, SYNCED));
  const int process = client->extensionProcess();
  ASSERT_GT(process, 0);
  const int questions = other->questions();
  ::kill(process, SIGKILL);
  ASSERT_TRUE(vornet::test::waitForEnd(process));
  application->setStatus("/file", 1);
  EXPECT_TRUE(becomes(*file, PENDING));
  EXPECT_NE(client->extensionProcess(), process);
  EXPECT_THAT(other->emblems(), ElementsAre(SYNCED));
  EXPECT_EQ(other->questions(), questions) << "its emblem was never taken away";
}

TEST_F(VORNET_PLUGIN_SUITE, IsSilentWhereTheExtensionIsNotInstalled) {
  start(Extension::none);
  CapturedOutput said(STDERR_FILENO);
  std::vector<std::unique_ptr<FakeFile>> files;
  for (int i = 0; i < 100; ++i) files.push_back(shown(std::to_string(i)));
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(runUntil(
        [&] { return std::ranges::all_of(files, [&](const auto& file) { return file->questions() > round; }); }));
    for (const auto& file : files) {
      EXPECT_THAT(file->emblems(), IsEmpty());
      file->ask();
    }
    EXPECT_THAT(host->menu({files[0].get()}), IsEmpty());
  }
  // Installed at last, it is found without another question: by then the bus has answered all earlier ones.
  startFakeOnly();
  setBadge("0", "SYNCED");
  EXPECT_TRUE(becomes(*files[0], SYNCED));
  const auto lines = said.finish();
  EXPECT_LE(std::ranges::count(lines, '\n'), 1) << lines;
}

TEST_F(VORNET_PLUGIN_SUITE, AnswersTenThousandQuestionsWithoutWaitingForAFrozenExtension) {
  constexpr int COUNT = 10'000;
  const auto timeOf = [&](const std::string& folder) {
    std::vector<std::unique_ptr<FakeFile>> files;
    for (int i = 0; i < COUNT; ++i) files.push_back(host->file(folder + "/" + std::to_string(i)));
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& file : files) EXPECT_EQ(file->ask(), COMPLETE);
    const auto time = std::chrono::steady_clock::now() - begin;
    EXPECT_THAT(files.back()->emblems(), IsEmpty());
    return std::chrono::duration<double, std::milli>(time).count();
  };
  startReal();
  const auto file = shown("file");
  ASSERT_TRUE(becomes(*file, SYNCED));
  const double outside = timeOf(environment.folder() / "outside");
  const int process = BusClient(bus->address()).extensionProcess();
  ::kill(process, SIGSTOP);
  const double frozen = timeOf(root + "/folder");
  EXPECT_THAT(host->menu({file.get()}), SizeIs(5));
  RecordProperty("outside", std::to_string(outside));
  RecordProperty("frozen", std::to_string(frozen));
  // The one does next to nothing for each question, the other keeps the item; neither waits.
  EXPECT_LT(frozen, 50 * outside + 50);
  ::kill(process, SIGCONT);
}

TEST_F(VORNET_PLUGIN_SUITE, LeavesTheBusWhenItIsUnloaded) {
  startFake();
  setBadge("file", "SYNCED");
  const auto file = shown("file");
  ASSERT_TRUE(becomes(*file, SYNCED));
  const auto entries = answeredMenu({file.get()});
  ASSERT_TRUE(fake->clientIsConnected());
  host->unload();
  EXPECT_TRUE(runUntil([&] { return !fake->clientIsConnected(); }));
  entries[0].activate();  // a menu that is open still
  EXPECT_EQ(file->otherReferences(), 0u);
}

}  // namespace
