#include "Printer.hpp"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "DisplayText.hpp"

namespace vornet::vi {
namespace {

using testing::AllOf;
using testing::HasSubstr;

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

  /// What was written since the last call.
  std::string written() {
    std::string text(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END) - read_), '\0');
    EXPECT_EQ(pread(descriptor_, text.data(), text.size(), read_), static_cast<ssize_t>(text.size()));
    read_ += static_cast<off_t>(text.size());
    return text;
  }

  std::unique_ptr<Printer> terminal(bool colour, bool unicode = true, std::size_t width = 80) {
    return withBadges(makeTextPrinter(output_, Look{colour, unicode, width}));
  }
  std::unique_ptr<Printer> plain() { return withBadges(makeTextPrinter(output_, Look{false, true, std::nullopt})); }
  std::unique_ptr<Printer> json() { return withBadges(makeJSONPrinter(output_)); }

 private:
  static std::unique_ptr<Printer> withBadges(std::unique_ptr<Printer> printer) {
    printer->useBadges(BADGES);
    return printer;
  }

  int descriptor_;
  off_t read_ = 0;

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
  EXPECT_THAT(written(), AllOf(HasSubstr("+ Synced "), HasSubstr("~ Sync in progress "), HasSubstr("x Not synced "),
                               testing::Each(testing::Truly([](char c) { return (c & 0x80) == 0; }))));
}

TEST_F(PrinterTest, NoLineOnATerminalIsWiderThanItIs) {
  std::vector<Item> items;
  std::string name;
  for (int i = 0; i < 40; ++i) {
    name.append("報a\u0301");
    items.push_back(item(name, EntryKind::file, 1ULL << i, BADGES[static_cast<std::size_t>(i) % 3].identifier));
  }
  for (const std::size_t width : {30U, 40U, 60U, 80U, 120U}) {
    const auto printer = terminal(false, true, width);
    printer->list("/k" + std::string(100, 'x'), items, false);
    for (const Item& one : items) printer->change("/k", {Change::Kind::badge, one, "SKIPPED"});
    printer->extensionLeft();
    std::istringstream lines(written());
    for (std::string line; std::getline(lines, line);) EXPECT_LE(displayWidth(line), width) << line;
  }
}

TEST_F(PrinterTest, ANarrowTerminalHasNeitherKindNorSizeBeforeANameIsCut) {
  const std::pair<std::size_t, const char*> tables[] = {
      {36, "Badge     Kind      Size  Name\n✓ Synced  file  12 bytes  0123456789\n"},
      {35, "Badge         Size  Name\n✓ Synced  12 bytes  0123456789\n"},
      {30, "Badge         Size  Name\n✓ Synced  12 bytes  0123456789\n"},
      {29, "Badge     Name\n✓ Synced  0123456789\n"},
      {20, "Badge     Name\n✓ Synced  0123456789\n"},
      {19, "Badge     Name\n✓ Synced  0123…6789\n"},
  };
  for (const auto& [width, table] : tables) {
    terminal(false, true, width)->list("/k", {item("0123456789", EntryKind::file, 12, "SYNCED")}, false);
    EXPECT_EQ(written(), std::string("/k\n") + table + "1 item: 1 ✓ Synced\n") << width;
  }
}

TEST_F(PrinterTest, AChangeHasANoteWhereItFitsAndTheTimeUnlessTheTerminalIsNarrow) {
  const auto shown = [&](std::size_t width) {
    terminal(false, true, width)
        ->change("/k", {Change::Kind::badge, item("0123456789", EntryKind::file, 1, "SYNCED"), "SKIPPED"});
    return written();
  };
  const std::string text = "✓ Synced" + std::string(10, ' ') + "  0123";  // as wide as the widest badge
  EXPECT_THAT(shown(57), testing::EndsWith("  " + text + "456789 (was Not synced)\n"));
  EXPECT_THAT(shown(56), testing::EndsWith("  " + text + "456789\n"));
  EXPECT_THAT(shown(54), testing::EndsWith("  " + text + "456789\n"));
  EXPECT_EQ(shown(53), text + "456789 (was Not synced)\n");
  EXPECT_EQ(shown(46), text + "456789\n");
  EXPECT_EQ(shown(29), text + "…6789\n");
}

TEST_F(PrinterTest, ANarrowMenuHasNoActions) {
  const std::vector<MenuEntry> menu{{"View versions", "viewVersions:", true, ""}, {"Share", "share:", false, ""}};
  terminal(false, true, 39)->menu(menu);
  EXPECT_EQ(written(), "✓ enabled  View versions  viewVersions:\n– greyed   Share          share:\n");
  terminal(false, true, 38)->menu(menu);
  EXPECT_EQ(written(), "✓ enabled  View versions\n– greyed   Share\n");
}

TEST_F(PrinterTest, TheSummaryGoesOnInTheNextLineWhereItDoesNotFit) {
  terminal(false, true, 40)->list("/k", ITEMS, false);
  EXPECT_THAT(written(),
              testing::EndsWith("4 items: 1 no badge,\n  1 ⟳ Sync in progress, 1 ✗ Not synced,\n  1 ✓ Synced\n"));
}

TEST_F(PrinterTest, AnEmptyFolderIsShownAsSuch) {
  terminal(false)->list("/k", {}, false);
  EXPECT_EQ(written(), "/k\n0 items\n");
}

TEST_F(PrinterTest, ColoursAreEscapesAroundTheTextWithoutItsPadding) {
  terminal(true)->list("/k", ITEMS, false);
  EXPECT_THAT(written(),
              AllOf(HasSubstr("\n\x1b[32m✓ Synced\x1b[0m            folder"), HasSubstr("\x1b[1mPhotos/\x1b[0m\n"),
                    HasSubstr("\n\x1b[31m✗ Not synced\x1b[0m        link              報告\n")));
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
  EXPECT_EQ(written(),
            R"({"name":"Photos","url":"file:///k/Photos","kind":"folder","size":null,"badge":"SYNCED","label":"Synced"}
{"name":"a\u001b[31m","url":"file:///k/a%1B%5B31m","kind":"file","size":12,"badge":"","label":""}
{"name":"caf�","url":"file:///k/caf%E9","kind":"file","size":2500000,"badge":"PENDING","label":"Sync in progress"}
{"name":"報告","url":"file:///k/%E5%A0%B1%E5%91%8A","kind":"link","size":null,"badge":"SKIPPED","label":"Not synced"}
)");
}

TEST_F(PrinterTest, JsonNamesTheEventsOfWatching) {
  const auto printer = json();
  const Item shown{Entry{"a", EntryKind::file, 1}, "SYNCED"};
  printer->list("/", {shown}, true);
  printer->change("/", {Change::Kind::badge, shown, "PENDING"});
  printer->change("/", {Change::Kind::appeared, shown, ""});
  printer->change("/", {Change::Kind::vanished, shown, ""});
  printer->extensionLeft();
  printer->extensionBack();
  EXPECT_EQ(written(),
            R"({"event":"entry","name":"a","url":"file:///a","kind":"file","size":1,"badge":"SYNCED","label":"Synced"}
{"event":"watching","url":"file:///","entries":1}
{"event":"badge","name":"a","url":"file:///a","kind":"file","size":1,"badge":"SYNCED","label":"Synced","was":"PENDING"}
{"event":"new","name":"a","url":"file:///a","kind":"file","size":1,"badge":"SYNCED","label":"Synced"}
{"event":"gone","name":"a","url":"file:///a","kind":"file","size":1,"badge":"SYNCED","label":"Synced"}
{"event":"extension","running":false}
{"event":"extension","running":true}
)");
}

TEST_F(PrinterTest, StatusTellsARefusalATimeOutAndAnotherUsersProcessApart) {
  using Outcome = SyncApplicationState::Outcome;
  Status status;
  const auto shown = [&](Outcome outcome) {
    status.syncApplication.outcome = outcome;
    plain()->status(status);
    return written();
  };
  EXPECT_THAT(shown(Outcome::refused), HasSubstr("  not running (127.0.0.1:8806 refuses the connection)\n"));
  status.syncApplication.milliseconds = 3000;
  EXPECT_THAT(shown(Outcome::timedOut), HasSubstr("  does not answer on 127.0.0.1:8806 (timed out after 3000 ms)\n"));
  status.syncApplication.user = 65534;
  EXPECT_THAT(shown(Outcome::anotherUser),
              HasSubstr("  another user's process (of uid 65534) listens on 127.0.0.1:8806"));
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
