#include "Printer.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json.hpp>
#include <csignal>

#include "DisplayText.hpp"

namespace vornet::vi {
namespace {

const std::vector<Badge> BADGES{
    {"SKIPPED", "Not synced", "error"}, {"PENDING", "Sync in progress", "sync"}, {"SYNCED", "Synced", "checkmark"}};

Item item(const std::string& name, EntryKind kind, std::uint64_t size, const std::string& badge) {
  return Item{Entry{name, kind, size}, badge};
}

const std::vector<Item> ITEMS{
    item("Photos", EntryKind::folder, 0, "SYNCED"), item("a\x1b[31m", EntryKind::file, 12, ""),
    item("caf\xE9", EntryKind::file, 2'500'000, "PENDING"), item("報告", EntryKind::link, 0, "SKIPPED")};

/// Collects what a printer writes.
class PrinterTest : public ::testing::Test {
 protected:
  PrinterTest() : descriptor_(memfd_create("output", MFD_CLOEXEC)), output_(descriptor_) {}
  ~PrinterTest() override { close(descriptor_); }

  std::string written() const {
    std::string text(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(descriptor_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

  std::unique_ptr<Printer> terminal(bool colour, bool unicode = true, std::size_t width = 80) {
    auto printer = makeTextPrinter(output_, Look{colour, unicode, width});
    printer->useBadges(BADGES);
    return printer;
  }
  std::unique_ptr<Printer> plain(bool unicode = true) {
    auto printer = makeTextPrinter(output_, Look{false, unicode, std::nullopt});
    printer->useBadges(BADGES);
    return printer;
  }
  std::unique_ptr<Printer> json() {
    auto printer = makeJSONPrinter(output_);
    printer->useBadges(BADGES);
    return printer;
  }

  /// Every line, parsed.
  std::vector<boost::json::object> objects() const {
    std::vector<boost::json::object> objects;
    const std::string text = written();
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = text.find('\n', start);
      objects.push_back(boost::json::parse(text.substr(start, end - start)).as_object());
      start = end + 1;
    }
    return objects;
  }

 private:
  int descriptor_;

 protected:
  Output output_;
};

TEST_F(PrinterTest, TerminalShowsSymbolAndLabelOfEachBadge) {
  terminal(false)->list("/k", ITEMS, false);
  EXPECT_EQ(written(),
            "/k\n"
            "Badge               Kind        Size  Name\n"
            "✓ Synced            folder            Photos/\n"
            "                    file    12 bytes  a\\e[31m\n"
            "⟳ Sync in progress  file      2.5 MB  caf\\xe9\n"
            "✗ Not synced        link              報告\n"
            "4 items: 1 no badge, 1 ⟳ Sync in progress, 1 ✗ Not synced, 1 ✓ Synced\n");
}

TEST_F(PrinterTest, SymbolsAreASCIIWhereTheLocaleIsNotUTF8) {
  terminal(false, false)->list("/k", ITEMS, false);
  const std::string text = written();
  EXPECT_NE(text.find("+ Synced "), std::string::npos);
  EXPECT_NE(text.find("~ Sync in progress "), std::string::npos);
  EXPECT_NE(text.find("x Not synced "), std::string::npos);
  EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }));
}

TEST_F(PrinterTest, NoLineOnATerminalIsWiderThanItIs) {
  std::vector<Item> items;
  std::string name;
  for (int i = 0; i < 40; ++i) {
    name.append("報a\u0301");
    items.push_back(item(name, EntryKind::file, 1ULL << i, BADGES[static_cast<std::size_t>(i) % 3].identifier));
  }
  for (const std::size_t width : {30U, 40U, 60U, 80U, 120U}) {
    const std::size_t start = written().size();
    const auto printer = terminal(false, true, width);
    printer->list("/k" + std::string(100, 'x'), items, false);
    for (const Item& one : items) printer->change("/k", {Change::Kind::badge, one, "SKIPPED"});
    printer->extensionLeft();
    const std::string text = written();
    for (std::size_t from = start; from < text.size();) {
      const std::size_t end = text.find('\n', from);
      EXPECT_LE(displayWidth(text.substr(from, end - from)), width) << text.substr(from, end - from);
      from = end + 1;
    }
  }
}

TEST_F(PrinterTest, ANarrowTerminalHasNeitherKindNorSizeBeforeANameIsCut) {
  const std::vector<Item> items{item("0123456789", EntryKind::file, 12, "SYNCED")};
  const auto shown = [&](std::size_t width) {
    const std::size_t start = written().size();
    terminal(false, true, width)->list("/k", items, false);
    return written().substr(start);
  };
  EXPECT_EQ(shown(36),
            "/k\n"
            "Badge     Kind      Size  Name\n"
            "✓ Synced  file  12 bytes  0123456789\n"
            "1 item: 1 ✓ Synced\n");
  EXPECT_EQ(shown(35),
            "/k\n"
            "Badge         Size  Name\n"
            "✓ Synced  12 bytes  0123456789\n"
            "1 item: 1 ✓ Synced\n");
  EXPECT_EQ(shown(29),
            "/k\n"
            "Badge     Name\n"
            "✓ Synced  0123456789\n"
            "1 item: 1 ✓ Synced\n");
  EXPECT_EQ(shown(19),
            "/k\n"
            "Badge     Name\n"
            "✓ Synced  0123…6789\n"
            "1 item: 1 ✓ Synced\n");
}

TEST_F(PrinterTest, AChangeHasANoteWhereItFitsAndTheTimeUnlessTheTerminalIsNarrow) {
  const Change change{Change::Kind::badge, item("0123456789", EntryKind::file, 1, "SYNCED"), "SKIPPED"};
  const auto shown = [&](std::size_t width) {
    const std::size_t start = written().size();
    terminal(false, true, width)->change("/k", change);
    return written().substr(start);
  };
  const std::string text = "✓ Synced" + std::string(10, ' ') + "  0123";  // as wide as the widest badge
  EXPECT_TRUE(shown(57).ends_with("  " + text + "456789 (was Not synced)\n")) << shown(57);
  EXPECT_TRUE(shown(56).ends_with("  " + text + "456789\n")) << shown(56);
  EXPECT_TRUE(shown(54).ends_with("  " + text + "456789\n")) << shown(54);
  EXPECT_EQ(shown(53), text + "456789 (was Not synced)\n");
  EXPECT_EQ(shown(46), text + "456789\n");
  EXPECT_EQ(shown(29), text + "…6789\n");
}

TEST_F(PrinterTest, ANarrowMenuHasNoActions) {
  const std::vector<MenuEntry> menu{{"View versions", "viewVersions:", true, ""}, {"Share", "share:", false, ""}};
  terminal(false, true, 39)->menu(menu);
  EXPECT_EQ(written(), "✓ enabled  View versions  viewVersions:\n– greyed   Share          share:\n");
  const std::size_t start = written().size();
  terminal(false, true, 38)->menu(menu);
  EXPECT_EQ(written().substr(start), "✓ enabled  View versions\n– greyed   Share\n");
}

TEST_F(PrinterTest, TheSummaryGoesOnInTheNextLineWhereItDoesNotFit) {
  terminal(false, true, 40)->list("/k", ITEMS, false);
  EXPECT_TRUE(written().ends_with("4 items: 1 no badge,\n  1 ⟳ Sync in progress, 1 ✗ Not synced,\n  1 ✓ Synced\n"))
      << written();
}

TEST_F(PrinterTest, AnEmptyFolderIsShownAsSuch) {
  terminal(false)->list("/k", {}, false);
  EXPECT_EQ(written(), "/k\n0 items\n");
}

TEST_F(PrinterTest, ColoursAreEscapesAroundTheSameText) {
  terminal(true)->list("/k", ITEMS, false);
  EXPECT_NE(written().find("\x1b[32m✓ Synced\x1b[0m"), std::string::npos);
  EXPECT_NE(written().find("\x1b[31m✗ Not synced\x1b[0m"), std::string::npos);
}

TEST_F(PrinterTest, PlainTextHasOneLineAnEntryAndNoTabs) {
  plain()->list("/k", ITEMS, false);
  EXPECT_EQ(written(),
            "✓ Synced            folder        -  Photos\n"
            "-                   file         12  a\\e[31m\n"
            "⟳ Sync in progress  file    2500000  caf\\xe9\n"
            "✗ Not synced        link          -  報告\n");
}

TEST_F(PrinterTest, PlainTextHasOneLineAChange) {
  const auto printer = plain();
  printer->change("/k", {Change::Kind::badge, ITEMS[0], "PENDING"});
  printer->change("/k", {Change::Kind::appeared, ITEMS[1], ""});
  printer->change("/k", {Change::Kind::vanished, ITEMS[2], ""});
  printer->extensionLeft();
  printer->extensionBack();
  EXPECT_EQ(written(),
            "badge  ✓ Synced  Photos\n"
            "new  -  a\\e[31m\n"
            "gone  ⟳ Sync in progress  caf\\xe9\n"
            "extension  stopped\n"
            "extension  back\n");
}

TEST_F(PrinterTest, ABadgeThatIsNotRegisteredIsShownByItsIdentifier) {
  plain()->list("/k", {item("a", EntryKind::file, 1, "NEW\x1b")}, false);
  EXPECT_EQ(written(), "? NEW\\e  file  1  a\n");
}

TEST_F(PrinterTest, JsonHasOneObjectALineWithTheExactURL) {
  json()->list("/k", ITEMS, false);
  const auto lines = objects();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], (boost::json::object{{"name", "Photos"},
                                           {"url", "file:///k/Photos"},
                                           {"kind", "folder"},
                                           {"size", nullptr},
                                           {"badge", "SYNCED"},
                                           {"label", "Synced"}}));
  EXPECT_EQ(lines[1].at("name"), "a\x1b[31m");
  EXPECT_EQ(lines[1].at("size"), 12);
  EXPECT_EQ(lines[1].at("badge"), "");
  EXPECT_EQ(lines[2].at("name"), "caf\uFFFD");
  EXPECT_EQ(lines[2].at("url"), "file:///k/caf%E9");
  EXPECT_EQ(written().find('\x1b'), std::string::npos);
}

TEST_F(PrinterTest, JsonNamesTheEventsOfWatching) {
  const auto printer = json();
  printer->list("/k", {ITEMS[0]}, true);
  printer->change("/k", {Change::Kind::badge, ITEMS[0], "PENDING"});
  printer->change("/k", {Change::Kind::appeared, ITEMS[1], ""});
  printer->change("/k", {Change::Kind::vanished, ITEMS[2], ""});
  printer->extensionLeft();
  printer->extensionBack();
  const auto lines = objects();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0].at("event"), "entry");
  EXPECT_EQ(lines[1], (boost::json::object{{"event", "watching"}, {"url", "file:///k"}, {"entries", 1}}));
  EXPECT_EQ(lines[2].at("event"), "badge");
  EXPECT_EQ(lines[2].at("badge"), "SYNCED");
  EXPECT_EQ(lines[2].at("was"), "PENDING");
  EXPECT_EQ(lines[3].at("event"), "new");
  EXPECT_EQ(lines[4].at("event"), "gone");
  EXPECT_EQ(lines[5], (boost::json::object{{"event", "extension"}, {"running", false}}));
  EXPECT_EQ(lines[6], (boost::json::object{{"event", "extension"}, {"running", true}}));
}

TEST_F(PrinterTest, StatusDistinguishesARefusalFromATimeOut) {
  Status status;
  status.canBeStarted = true;
  status.syncApplication.outcome = SyncApplicationState::Outcome::refused;
  plain()->status(status);
  EXPECT_NE(written().find("not running (starts on demand)"), std::string::npos);
  EXPECT_NE(written().find("refuses the connection"), std::string::npos);
  EXPECT_EQ(written().find("timed out"), std::string::npos);
  status.syncApplication.outcome = SyncApplicationState::Outcome::timedOut;
  status.syncApplication.milliseconds = 3000;
  plain()->status(status);
  EXPECT_NE(written().find("timed out after 3000 ms"), std::string::npos);
}

TEST_F(PrinterTest, StatusSaysThatAnotherUsersProcessListens) {
  Status status;
  status.syncApplication.outcome = SyncApplicationState::Outcome::anotherUser;
  status.syncApplication.user = 65534;
  plain()->status(status);
  EXPECT_NE(written().find("another user's process (of uid 65534) listens on 127.0.0.1:8806"), std::string::npos);
}

TEST(OutputTest, DistinguishesABrokenPipeFromAFailure) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  Output broken{ends[1]};
  broken.write("x");
  EXPECT_THROW(broken.flush(), BrokenPipe);
  close(ends[1]);
  Output closed{ends[1]};
  closed.write("x");
  EXPECT_THROW(closed.flush(), std::runtime_error);
}

}  // namespace
}  // namespace vornet::vi
