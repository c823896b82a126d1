// The built plug-ins in a program that does with them what Dolphin does, with the real extension on a private bus and
// the stand-in sync application.
#include <KFileItemActions>
#include <KFileItemListProperties>
#include <QElapsedTimer>
#include <QFile>
#include <QMenu>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>

#include "Host.hpp"
#include "support/DesktopTest.hpp"
#include "support/dolphin/DolphinView.hpp"

namespace vornet::dolphin {
namespace {

using test::DesktopTest;
using test::ScopedVariable;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace fs = std::filesystem;

class Plugins : public DesktopTest {
 protected:
  explicit Plugins(Extension extension = Extension::real)
      : DesktopTest({"/file", "/other", "/lock.tmp", "/folder/inside", "/folder/deep/down"}) {
    writeFile(outside + "/stranger", "text");
    startBus(extension);
    g_log_set_default_handler(
        [](const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer data) {
          if (level <= G_LOG_LEVEL_WARNING) static_cast<std::vector<std::string>*>(data)->emplace_back(message);
          g_log_default_handler(domain, level, message, nullptr);
        },
        &warnings);
  }
  ~Plugins() override { g_log_set_default_handler(g_log_default_handler, nullptr); }

  /// Starts the sync application, with everything synced when this returns, and then the program.
  void start() {
    startApplication();
    startHost();
  }
  void startHost() { host = std::make_unique<Host>(); }

  /// A view that shows `folder`, everything in it listed.
  std::unique_ptr<DolphinView> openView(const std::string& folder, const std::string& item) {
    auto view = std::make_unique<DolphinView>(host->overlays());
    view->open(url(folder));
    view->show();
    EXPECT_TRUE(Host::waitUntil([&] { return view->lists(url(item)); }));
    return view;
  }

  /// Starts all, with a view of the synced folder and an emblem in it.
  std::unique_ptr<DolphinView> startWithView() {
    start();
    auto view = openView("", "file");
    EXPECT_TRUE(waitForEmblem(*view, "file", SYNCED));
    return view;
  }

  std::string path(const std::string& name) const { return name.empty() ? root : root + "/" + name; }
  QUrl url(const std::string& name) const { return urlOf(path(name)); }
  static QUrl urlOf(const std::string& path) { return QUrl::fromLocalFile(QFile::decodeName(path.c_str())); }

  std::string emblem(const DolphinView& view, const std::string& name) const {
    return view.emblem(url(name)).join(QLatin1Char(' ')).toStdString();
  }
  /// Keeps in `seen` which emblems the item has meanwhile.
  bool waitForEmblem(const DolphinView& view, const std::string& name, const std::string& icon) {
    seen.clear();
    return Host::waitUntil([&] { return seen.emplace_back(emblem(view, name)) == icon; });
  }

  std::size_t entered(const std::string& folder) const { return logged("Directory enter: " + path(folder) + "\n"); }
  std::size_t left(const std::string& folder) const { return logged("Directory exit: " + path(folder) + "\n"); }
  bool waitForEntered(const std::string& folder, std::size_t times = 1) const {
    return Host::waitUntil([&] { return entered(folder) == times; });
  }
  bool waitForLeft(const std::string& folder, std::size_t times = 1) const {
    return Host::waitUntil([&] { return left(folder) == times; });
  }

  /// The entries that a window's action plug-in has for a context menu of its view `parent`.
  QList<QAction*> entriesFor(const QList<QUrl>& items, QWidget* parent) {
    if (!actions) actions = host->newActions();
    return actions->actions(KFileItemListProperties(itemsOf(items)), parent);
  }
  std::vector<std::string> shownFor(const QList<QUrl>& items, QWidget* parent) {
    return shown(entriesFor(items, parent));
  }
  std::ptrdiff_t menuRequests() const {
    return std::ranges::count(application->requests(), std::string("/mac_populate_menu"), &sim::HttpRequest::target);
  }

  const std::string outside = environment.folder() / "outside";
  const ScopedVariable platform{"QT_QPA_PLATFORM", "offscreen"};
  const ScopedVariable config{"XDG_CONFIG_HOME", environment.folder() / "config"};
  const ScopedVariable cache{"XDG_CACHE_HOME", environment.folder() / "cache"};
  std::vector<std::string> warnings;
  std::vector<std::string> seen;
  std::unique_ptr<Host> host;
  std::unique_ptr<KAbstractFileItemActionPlugin> actions;
};

constexpr const char* UNSEEN = "folder/deep/";  // what is made in it, no view shows
const std::vector<std::string> ALL = {"Share", "Copy Link", "Comments", "View versions", "View in Cloud"};
const std::vector<std::string> GREYED = {"(Share)", "(Copy Link)", "(Comments)", "(View versions)", "(View in Cloud)"};
const std::vector<std::string> FOLDERS = {"Share", "Copy Link", "Comments", "(View versions)", "View in Cloud"};

// --- Both event loops -----------------------------------------------------------------------------------------------

enum class Loop { GLIB, QT };

class PluginsOnLoop : public Plugins, public testing::WithParamInterface<Loop> {
  const ScopedVariable loop{"QT_NO_GLIB", GetParam() == Loop::QT ? std::optional<std::string>("1") : std::nullopt};
};

TEST_P(PluginsOnLoop, ShowsAllThreeEmblemsAndAChangeAutomatically) {
  start();
  application->setStatus("/other", 1);
  const auto view = openView("", "other");
  EXPECT_TRUE(waitForEmblem(*view, "file", SYNCED));
  EXPECT_TRUE(waitForEmblem(*view, "folder", SYNCED) || waitForEmblem(*view, "folder", PENDING));
  EXPECT_TRUE(waitForEmblem(*view, "other", PENDING));
  EXPECT_TRUE(waitForEmblem(*view, "lock.tmp", SKIPPED));

  application->setStatus("/other", 2);
  pollNow(UNSEEN);
  EXPECT_TRUE(waitForEmblem(*view, "other", SYNCED));
}

TEST_P(PluginsOnLoop, CarriesOutAnEntryOnTheSelectionThatItWasShownFor) {
  start();
  const auto view = openView("", "file");
  view->select({url("file")});
  ASSERT_TRUE(waitForEmblem(*view, "file", SYNCED));
  const auto entries = entriesFor({url("file"), url("folder")}, view.get());
  const std::vector<std::string> several = {"Share", "(Copy Link)", "(Comments)", "(View versions)", "View in Cloud"};
  ASSERT_TRUE(Host::waitUntil([&] { return shown(entries) == several; }));
  view->select({url("other")});
  entries[4]->trigger();
  ASSERT_TRUE(Host::waitUntil([&] { return application->actions().size() == 1; }));
  const auto performed = application->actions()[0];
  EXPECT_EQ(performed.name, "View in Cloud");
  EXPECT_THAT(performed.paths, ElementsAre("/file", "/folder/"));
}

INSTANTIATE_TEST_SUITE_P(Plugins, PluginsOnLoop, testing::Values(Loop::GLIB, Loop::QT),
                         [](const auto& tested) { return tested.param == Loop::GLIB ? "GLib" : "Qt"; });

// --- Emblems --------------------------------------------------------------------------------------------------------

TEST_F(Plugins, AnEmptiedIdentifierRemovesAnEmblem) {
  start();
  const auto view = openView("", "file");
  QStringList reported{QStringLiteral("nothing was reported")};
  QObject::connect(host->overlays(), &KOverlayIconPlugin::overlaysChanged, view.get(),
                   [&](const QUrl& item, const QStringList& icons) {
                     if (item == url("file")) reported = icons;
                   });
  ASSERT_TRUE(waitForEmblem(*view, "file", SYNCED));
  EXPECT_EQ(reported, QStringList(QString::fromLatin1(SYNCED)));
  application->setStatus("/file", -1);
  pollNow(UNSEEN);
  EXPECT_TRUE(waitForEmblem(*view, "file", ""));
  EXPECT_TRUE(reported.isEmpty());
}

TEST_F(Plugins, NothingOutsideTheSyncedFolderHasAnEmblem) {
  start();
  const auto within = openView("", "file");
  DolphinView view(host->overlays());
  view.open(urlOf(outside));
  view.show();
  ASSERT_TRUE(Host::waitUntil([&] { return view.lists(urlOf(outside + "/stranger")); }));
  ASSERT_TRUE(waitForEmblem(*within, "file", SYNCED));
  EXPECT_TRUE(view.emblem(urlOf(outside + "/stranger")).isEmpty());
  for (const char* other : {"", "trash:/file", "smb://host/file", "file://host/file", "file:///", "http://[", "file:"})
    EXPECT_TRUE(host->overlays()->getOverlays(QUrl(QString::fromLatin1(other))).isEmpty()) << other;
  EXPECT_EQ(logged(outside), 0u);
}

TEST_F(Plugins, OddNamesHaveTheirEmblemsAndNamesThatAreNotUTF8HaveNone) {
  const std::vector<std::string> names = {"with space", "100%",       "a%20b",
                                          "a#b",        "a:b",        "a?b",
                                          "a&b",        "a\\b",       "Gr\u00FC\u00DFe \U0001F600",
                                          "caf\u00E9",  "cafe\u0301", std::string(255, 'x'),
                                          "quote\"s",   "two\nlines"};
  for (const auto& name : names) writeFile(root + "/folder/" + name, "");
  writeFile(root + "/folder/bytes\xFF", "");
  fs::create_symlink("with space", root + "/folder/link");
  std::string deep = "folder/deep";
  for (int level = 0; level < 12; ++level) deep += "/" + std::string(200, static_cast<char>('a' + level));
  fs::create_directories(root + "/" + deep);
  writeFile(root + "/" + deep + "/bottom", "");
  start();
  application->setStatus("/folder/caf\u00E9", 1);
  const auto view = openView("folder", "folder/link");
  for (const auto& name : names) {
    const auto status = application->status("/folder/" + name);
    const auto* const icon = status ? std::array{SKIPPED, PENDING, SYNCED}.at(static_cast<std::size_t>(*status)) : "";
    EXPECT_TRUE(waitForEmblem(*view, "folder/" + name, icon)) << name;
  }
  EXPECT_EQ(application->status("/folder/cafe\u0301"), 2) << "another name";
  const QUrl bytes = url("folder/bytes\xFF");
  EXPECT_TRUE(view->lists(bytes));
  EXPECT_TRUE(view->emblem(bytes).isEmpty());
  const auto below = openView(deep, deep + "/bottom");
  EXPECT_TRUE(waitForEmblem(*below, deep + "/bottom", SYNCED));
}

// --- What is on screen ----------------------------------------------------------------------------------------------

TEST_F(Plugins, AFolderIsObservedAsLongAsAnyOfItsViewsShowsIt) {
  start();
  auto one = openView("", "file");
  ASSERT_TRUE(waitForEntered(""));
  auto two = openView("", "file");
  auto three = openView("", "file");
  ASSERT_TRUE(waitForEmblem(*three, "file", SYNCED));
  three.reset();
  one->hide();
  application->setStatus("/file", 1);
  pollNow(UNSEEN);
  EXPECT_TRUE(waitForEmblem(*two, "file", PENDING));
  EXPECT_EQ(entered(""), 3u) << "each view counts";
  EXPECT_EQ(left(""), 0u);
  two->open(url("folder"));  // the last view leaves it
  ASSERT_TRUE(waitForEntered("folder"));
  ASSERT_TRUE(waitForLeft(""));
  one->show();
  ASSERT_TRUE(waitForEntered("", 4)) << "the first one again";
  two.reset();
  ASSERT_TRUE(waitForLeft("folder"));
  EXPECT_EQ(left(""), 1u);
  one.reset();
  ASSERT_TRUE(waitForLeft("", 2));
  EXPECT_EQ(entered(""), 4u);
}

TEST_F(Plugins, AFolderIsObservedBeforeTheViewThatGoesThereListsIt) {
  const auto view = startWithView();
  Q_EMIT view->urlChanged(url("folder"));  // and nothing else
  EXPECT_TRUE(waitForEntered("folder"));
  EXPECT_TRUE(waitForLeft("folder")) << "it was not shown";
}

TEST_F(Plugins, AViewInAHiddenTabShowsNothing) {
  start();
  QWidget window;
  DolphinView tab(host->overlays(), &window);
  DolphinView hidden(host->overlays(), &window);
  hidden.hide();  // never shown before, like a tab opened in the background
  Host::settle();
  hidden.open(url("folder"));
  ASSERT_TRUE(Host::waitUntil([&] { return hidden.lists(url("folder/inside")); }));
  tab.open(url(""));
  window.show();
  ASSERT_TRUE(waitForEmblem(tab, "file", SYNCED));
  EXPECT_TRUE(hidden.emblem(url("folder/inside")).isEmpty());
  Host::runFor(500);  // until the library would have inferred a folder that no view shows
  EXPECT_EQ(entered("folder"), 0u);
  tab.hide();
  hidden.show();
  ASSERT_TRUE(waitForEntered("folder"));
  ASSERT_TRUE(waitForLeft(""));
  EXPECT_TRUE(waitForEmblem(hidden, "folder/inside", SYNCED));
  window.close();
  ASSERT_TRUE(waitForLeft("folder"));
}

TEST_F(Plugins, AnOpenBranchOfATreeIsObserved) {
  start();
  const auto view = openView("", "folder");
  view->openBranch(url("folder"));
  ASSERT_TRUE(waitForEmblem(*view, "folder/inside", SYNCED));
  view->openBranch(url("folder/deep"));
  ASSERT_TRUE(waitForEmblem(*view, "folder/deep/down", SYNCED));
  ASSERT_TRUE(waitForEntered("folder/deep"));
  view->closeBranch(url("folder/deep"));
  ASSERT_TRUE(waitForLeft("folder/deep"));
  EXPECT_EQ(left("folder"), 0u);
  view->open(url("folder/deep"));
  ASSERT_TRUE(waitForLeft("folder"));
  ASSERT_TRUE(waitForLeft(""));
}

TEST_F(Plugins, ChangesWhileAViewWasHiddenAppearWhenItIsShownAgain) {
  const auto view = startWithView();
  ASSERT_TRUE(waitForEmblem(*view, "other", SYNCED));
  view->hide();
  ASSERT_TRUE(waitForLeft(""));
  application->setStatus("/file", 1);
  application->setStatus("/other", -1);
  view->show();
  ASSERT_TRUE(waitForEntered("", 2));
  pollNow(UNSEEN);
  EXPECT_TRUE(waitForEmblem(*view, "file", PENDING));
  EXPECT_THAT(seen, testing::Each(Not(IsEmpty()))) << "it flickers";
  EXPECT_TRUE(waitForEmblem(*view, "other", ""));
}

TEST_F(Plugins, AViewWithoutADirectoryListerIsFollowedByItsSignals) {
  start();
  DolphinView view(host->overlays());
  view.loseLister();
  view.open(QUrl());
  view.show();
  Host::settle();
  view.open(url("folder"));
  ASSERT_TRUE(waitForEntered("folder"));
  host->overlays()->getOverlays(url("folder/inside"));
  EXPECT_TRUE(Host::waitUntil([&] { return !host->overlays()->getOverlays(url("folder/inside")).isEmpty(); }));
  view.open(url(""));
  ASSERT_TRUE(waitForLeft("folder"));
  view.open(QUrl(QStringLiteral("trash:/")));
  ASSERT_TRUE(waitForLeft(""));
}

TEST_F(Plugins, ItemsOfAFolderThatNoViewShowsHaveEmblemsToo) {
  start();
  KDirLister lister;  // of a program that has no view of Dolphin's
  lister.openUrl(url("folder"));
  ASSERT_TRUE(Host::waitUntil([&] { return !lister.findByUrl(url("folder/inside")).isNull(); }));
  QStringList reported;
  QObject::connect(host->overlays(), &KOverlayIconPlugin::overlaysChanged, &lister,
                   [&](const QUrl& item, const QStringList& icons) {
                     if (item == url("folder/inside")) reported = icons;
                   });
  host->overlays()->getOverlays(url("folder/inside"));
  EXPECT_TRUE(Host::waitUntil([&] { return reported == QStringList(QString::fromLatin1(SYNCED)); }));
  EXPECT_TRUE(waitForEntered("folder"));
}

TEST_F(Plugins, TheEndOfTheProgramEndsObservingAndNothingIsAskedAfterwards) {
  auto view = startWithView();
  ASSERT_FALSE(entriesFor({url("file")}, nullptr).isEmpty());
  auto* overlays = host->overlays();
  view.reset();
  host.reset();
  EXPECT_TRUE(overlays->getOverlays(url("file")).isEmpty());
  EXPECT_TRUE(entriesFor({url("file")}, nullptr).isEmpty());
  EXPECT_TRUE(client->waitUntil([&] { return left("") == 1; }));
}

// --- The menu -------------------------------------------------------------------------------------------------------

TEST_F(Plugins, EntriesAreGreyedUntilTheAnswerComesAndChangeInTheOpenMenu) {
  const auto view = startWithView();
  QMenu menu;
  menu.addActions(entriesFor({url("folder")}, view.get()));
  menu.popup(QPoint());
  const auto before = menu.actions();
  EXPECT_EQ(shown(before), GREYED);
  EXPECT_TRUE(Host::waitUntil([&] { return shown(menu.actions()) == FOLDERS; }));
  EXPECT_EQ(menu.actions(), before);
  for (const auto* entry : before) EXPECT_FALSE(entry->isVisible() && entry->isSeparator());
}

TEST_F(Plugins, AGreyedEntryHasTheTipThatTheSyncApplicationIsAway) {
  const auto view = startWithView();
  application->stop();
  EXPECT_TRUE(Host::waitUntil([&] {
    const auto entries = entriesFor({url("folder")}, view.get());
    return !entries.isEmpty() && entries.front()->toolTip() == QLatin1String("Kelvane is not running");
  }));
}

TEST_F(Plugins, SelectingPrefetchesTheMenu) {
  const auto view = startWithView();
  view->select({url("folder")});
  ASSERT_TRUE(application->waitForRequest("mac_populate_menu", vornet::test::PATIENCE));
  EXPECT_TRUE(Host::waitUntil([&] { return shownFor({url("folder")}, view.get()) == FOLDERS; }));
  view->hide();
  application->clearRequests();
  view->select({url("other")});
  Host::settle();
  EXPECT_EQ(menuRequests(), 0) << "the selection is in a hidden view";
}

TEST_F(Plugins, AnAnswerToAnOlderSelectionIsDropped) {
  const auto view = startWithView();
  view->select({url("folder")});
  view->select({url("file")});
  const auto entries = entriesFor({url("file")}, view.get());
  ASSERT_TRUE(Host::waitUntil([&] { return menuRequests() == 2; }));
  std::vector<std::vector<std::string>> menus;
  ASSERT_TRUE(Host::waitUntil([&] { return menus.emplace_back(shown(entries)) == ALL; }));
  EXPECT_THAT(menus, Not(testing::Contains(FOLDERS)));

  // A menu that is still there does not make its own selection the user's again.
  application->clearRequests();
  view->select({url("other")});
  ASSERT_TRUE(Host::waitUntil([&] { return menuRequests() == 1; }));
  Host::runFor(300);
  EXPECT_EQ(menuRequests(), 1);
  EXPECT_EQ(shown(entries), ALL);
}

TEST_F(Plugins, OnlyItemsOfTheSyncedFolderHaveEntries) {
  const auto view = startWithView();
  for (const auto& other : {urlOf(outside + "/stranger"), QUrl(QStringLiteral("smb://host/file"))}) {
    EXPECT_THAT(shownFor({other}, view.get()), IsEmpty()) << other.toString().toStdString();
    EXPECT_THAT(shownFor({url("file"), other}, view.get()), IsEmpty()) << other.toString().toStdString();
  }
  EXPECT_THAT(shownFor({url("file")}, nullptr), SizeIs(5));
}

TEST_F(Plugins, AViewsBackgroundHasNoEntriesAndTheSameFolderAsAnItemHas) {
  start();
  QWidget window;
  DolphinView parent(host->overlays(), &window);
  DolphinView view(host->overlays(), &window);
  parent.open(url(""));
  view.open(url("folder"));
  window.show();
  ASSERT_TRUE(waitForEmblem(view, "folder/inside", SYNCED));
  ASSERT_TRUE(waitForEmblem(parent, "folder", SYNCED));
  window.activateWindow();
  view.setFocus();
  ASSERT_TRUE(Host::waitUntil([&] { return QApplication::focusWidget() == nullptr || view.hasFocus(); }));
  EXPECT_THAT(shownFor({url("folder")}, &window), IsEmpty());
  EXPECT_THAT(shownFor({url("folder"), url("file")}, &window), SizeIs(5));
  view.hide();
  EXPECT_THAT(shownFor({url("folder")}, &window), SizeIs(5));
  EXPECT_THAT(shownFor({url("")}, &window), IsEmpty());
}

TEST_F(Plugins, InASplitWindowTheViewInUseSeparatesABackgroundFromAnItem) {
  start();
  QWidget window;
  DolphinView parent(host->overlays(), &window);
  DolphinView view(host->overlays(), &window);
  for (auto* one : {&parent, &view}) one->setFocusPolicy(Qt::StrongFocus);
  parent.open(url(""));
  view.open(url("folder"));
  window.show();
  window.activateWindow();
  ASSERT_TRUE(waitForEmblem(view, "folder/inside", SYNCED));
  parent.setFocus();
  ASSERT_TRUE(Host::waitUntil([&] { return parent.hasFocus(); }));
  EXPECT_THAT(shownFor({url("folder")}, &window), SizeIs(5));
  view.setFocus();
  ASSERT_TRUE(Host::waitUntil([&] { return view.hasFocus(); }));
  EXPECT_THAT(shownFor({url("folder")}, &window), IsEmpty());
}

TEST_F(Plugins, TheActionPluginAloneFillsTheFirstMenuWhileItIsOpen) {
  start();
  QMenu menu;
  QAction first(QStringLiteral("first"));
  QAction last(QStringLiteral("last"));
  menu.addAction(&first);
  menu.addActions(entriesFor({url("file")}, nullptr));  // as in a file dialog: no view, and no emblems
  menu.addAction(&last);
  menu.popup(QPoint());
  EXPECT_THAT(shown(menu.actions()), ElementsAre("first", "last"));
  const std::vector<std::string> all = {"first",         "Share",         "Copy Link", "Comments",
                                        "View versions", "View in Cloud", "last"};
  EXPECT_TRUE(Host::waitUntil([&] { return shown(menu.actions()) == all; }));
  menu.actions()[2]->trigger();
  ASSERT_TRUE(Host::waitUntil([&] { return application->actions().size() == 1; }));
  EXPECT_EQ(application->actions()[0].name, "Copy Link");
}

TEST_F(Plugins, EntriesOfFormerMenusDoNotPileUp) {
  const auto view = startWithView();
  int alive = 0;
  for (int menu = 0; menu < 10; ++menu) {
    for (auto* entry : entriesFor({url("file")}, view.get())) {
      ++alive;
      QObject::connect(entry, &QObject::destroyed, view.get(), [&alive] { --alive; });
    }
  }
  EXPECT_EQ(alive, 6);
}

TEST_F(Plugins, ASelectionThatIsTooLargeIsGreyedAndNotAskedFor) {
  const auto view = startWithView();
  QList<QUrl> many;
  for (int item = 0; item < 10'000; ++item) many.append(url("item" + std::to_string(item)));
  view->select(many);
  EXPECT_EQ(shownFor(many, view.get()), GREYED);
  Host::settle();
  EXPECT_EQ(menuRequests(), 0);
}

TEST_F(Plugins, KDEsOwnMenuHasTheEntriesAtItsTopLevel) {
  const auto view = startWithView();
  QCoreApplication::addLibraryPath(QStringLiteral(VORNET_DOLPHIN_PLUGINS "/.."));
  for (const auto& items : {QList<QUrl>{url("file")}, QList<QUrl>{url("folder"), url("lock.tmp")}}) {
    KFileItemActions kde;
    kde.setItemListProperties(KFileItemListProperties(itemsOf(items)));
    kde.setParentWidget(view.get());
    QMenu menu;
    kde.addActionsTo(&menu);
    EXPECT_THAT(shown(menu.actions()), testing::IsSupersetOf(GREYED));
  }
}

// --- Faults ---------------------------------------------------------------------------------------------------------

TEST_F(Plugins, AFrozenExtensionHoldsUpNothing) {
  const auto view = startWithView();
  ASSERT_EQ(::kill(client->extensionProcess(), SIGSTOP), 0);
  QElapsedTimer elapsed;
  elapsed.start();
  for (int item = 0; item < 10'000; ++item) host->overlays()->getOverlays(url("item" + std::to_string(item)));
  view->select({url("other")});
  const auto entries = entriesFor({url("other")}, view.get());
  view->open(url("folder"));
  Host::settle();
  EXPECT_LT(elapsed.elapsed(), 5'000) << "a call that waited would have taken ten seconds";
  EXPECT_EQ(shown(entries), GREYED);
  EXPECT_EQ(host->overlays()->getOverlays(url("folder/inside")), QStringList());
  ASSERT_EQ(::kill(client->extensionProcess(), SIGCONT), 0);
  EXPECT_TRUE(Host::waitUntil([&] { return shown(entries) == ALL; }));
  EXPECT_TRUE(waitForEmblem(*view, "folder/inside", SYNCED));
}

TEST_F(Plugins, AKilledExtensionComesBackAndNoEmblemIsLostMeanwhile) {
  const auto view = startWithView();
  const int process = client->extensionProcess();
  ASSERT_EQ(::kill(process, SIGKILL), 0);
  application->setStatus("/file", 1);
  EXPECT_TRUE(waitForEmblem(*view, "file", PENDING));
  EXPECT_THAT(seen, testing::Each(testing::AnyOf(SYNCED, PENDING)));
  EXPECT_NE(client->extensionProcess(), process);
}

struct PluginsWithoutExtension : Plugins {
  PluginsWithoutExtension() : Plugins(Extension::none) {}
};

TEST_F(PluginsWithoutExtension, AreSilent) {
  startHost();
  const auto view = openView("", "file");
  view->select({url("file")});
  EXPECT_THAT(shownFor({url("file")}, view.get()), IsEmpty());
  Host::runFor(500);
  EXPECT_EQ(emblem(*view, "file"), "");
  EXPECT_THAT(shownFor({url("file")}, view.get()), IsEmpty());
  EXPECT_LE(warnings.size(), 1u);
}

}  // namespace
}  // namespace vornet::dolphin
