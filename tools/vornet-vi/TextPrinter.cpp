#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>

#include "DisplayText.hpp"
#include "Printer.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::vi {
namespace {

using Align = Table::Align;
using Column = Table::Column;

constexpr const char* NOTHING = "-";

// Names are not elided below this; lines of "watch" have the time where as much is left for the name.
constexpr std::size_t NARROWEST_NAME = 8;
constexpr std::size_t ROOM_BESIDE_TIME = 24;

struct Symbol {
  const char* identifier;
  const char* unicode;
  const char* ascii;
  Tint tint;
};

constexpr std::array SYMBOLS{
    Symbol{"SYNCED", "\u2713", "+", Tint::good},
    Symbol{"PENDING", "\u27F3", "~", Tint::busy},
    Symbol{"SKIPPED", "\u2717", "x", Tint::bad},
};
constexpr Symbol UNKNOWN{"", "?", "?", Tint::plain};

const Symbol& symbolOf(const std::string& identifier) {
  const auto found = std::find_if(SYMBOLS.begin(), SYMBOLS.end(),
                                  [&identifier](const Symbol& symbol) { return identifier == symbol.identifier; });
  return found == SYMBOLS.end() ? UNKNOWN : *found;
}

std::string rounded(double milliseconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.0f ms", milliseconds);
  return text.data();
}

std::string clockText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::array<char, 16> text{};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
  return text.data();
}

std::string counted(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " item" : " items");
}

/// For people at a terminal, when the look has a width: with headings, summaries and the time. Else for pipes and
/// files: the same table alone, every cell filled, sizes in bytes.
class TextPrinter final : public Printer {
 public:
  TextPrinter(Output& output, const Look& look) : Printer(output), look_(look) {}

  void list(const std::string& folder, const std::vector<Item>& items, bool watched) override;
  void change(const std::string& folder, const Change& change) override;
  void extensionLeft() override;
  void extensionBack() override;
  void menu(const std::vector<MenuEntry>& entries) override;
  void performed(const MenuEntry& entry, const std::vector<std::string>& selection) override;
  void status(const Status& status) override;

 private:
  bool isTerminal() const { return look_.width.has_value(); }
  std::string safe(const std::string& raw) const { return safeText(raw, look_.unicode); }
  std::string tint(const Cell& cell) const { return tinted(cell.text, cell.tint, look_); }

  Cell badgeCell(const std::string& identifier, const char* none) const;
  Cell nameCell(const Entry& entry) const;
  std::string sizeText(const Entry& entry) const;
  std::string summaryOf(const std::vector<Item>& items) const;
  std::string noteOf(const Change& change) const;
  void event(const Cell& what, const Cell& name, const std::string& note);
  void line(const std::string& text);

  Cell extensionCell(const Status& status) const;
  Cell syncApplicationCell(const SyncApplicationState& state) const;
  std::string foldersText(const Status& status) const;

  const Look look_;
};

// --- Lists ----------------------------------------------------------------------------------------------------------

/// Symbol and label; `none` where there is no badge.
Cell TextPrinter::badgeCell(const std::string& identifier, const char* none) const {
  if (identifier.empty()) return {none};
  const Symbol& symbol = symbolOf(identifier);
  return {std::string(look_.unicode ? symbol.unicode : symbol.ascii) + " " + safe(labelOf(identifier)), symbol.tint};
}

Cell TextPrinter::nameCell(const Entry& entry) const {
  const bool isFolder = entry.kind == EntryKind::folder;
  return {safe(entry.name) + (isFolder && isTerminal() ? "/" : ""), isFolder ? Tint::strong : Tint::plain};
}

std::string TextPrinter::sizeText(const Entry& entry) const {
  if (entry.kind != EntryKind::file) return isTerminal() ? "" : NOTHING;
  if (!isTerminal()) return std::to_string(entry.size);
  const GCharPtr formatted(g_format_size(entry.size));
  std::string text = formatted.get();
  // GLib separates the unit by a no-break space, which not every locale can show.
  if (const auto space = text.find("\u00A0"); space != std::string::npos) text.replace(space, 2, " ");
  return text;
}

/// "3 items: 1 no badge, 2 ✓ Synced", in lines that fit.
std::string TextPrinter::summaryOf(const std::vector<Item>& items) const {
  std::map<std::string, std::size_t> counts;
  for (const Item& item : items) ++counts[item.badge];
  std::string plain = counted(items.size());
  std::string summary = tinted(plain, Tint::faint, look_);
  std::size_t width = displayWidth(plain);
  const char* separator = ":";
  for (const auto& [identifier, count] : counts) {
    const Cell cell = badgeCell(identifier, "no badge");
    const std::string number = std::to_string(count) + " ";
    const std::size_t added = number.size() + displayWidth(cell.text) + 2;
    const bool fits = !look_.width || width + added + 1 <= *look_.width;
    summary.append(tinted(separator, Tint::faint, look_)).append(fits ? " " : "\n  ");
    summary.append(tinted(number, Tint::faint, look_))
        .append(tinted(cell.text, identifier.empty() ? Tint::faint : cell.tint, look_));
    width = fits ? width + added : added + 1;
    separator = ",";
  }
  return summary;
}

void TextPrinter::list(const std::string& folder, const std::vector<Item>& items, bool watched) {
  // The first to be left out on a narrow terminal are kind and size.
  Table table({Column(), {Align::left, true}, {Align::right, true}, {}});
  if (isTerminal())
    table.addRow({{"Badge", Tint::faint}, {"Kind", Tint::faint}, {"Size", Tint::faint}, {"Name", Tint::faint}});
  for (const Item& item : items) {
    table.addRow({badgeCell(item.badge, isTerminal() ? "" : NOTHING),
                  {kindName(item.entry.kind)},
                  {sizeText(item.entry)},
                  nameCell(item.entry)});
  }
  if (isTerminal()) line(tinted(elided(safe(folder), *look_.width, look_.unicode), Tint::strong, look_));
  if (!items.empty()) output_.write(table.text(look_));
  if (isTerminal()) line(summaryOf(items));
  if (isTerminal() && watched) line(tinted("Watching for changes; Ctrl-C ends it.", Tint::faint, look_));
  output_.flush();
}

// --- Events ---------------------------------------------------------------------------------------------------------

std::string TextPrinter::noteOf(const Change& change) const {
  if (change.kind == Change::Kind::vanished) return {};
  if (change.kind == Change::Kind::appeared) return " (new)";
  return " (was " + (change.was.empty() ? "without badge" : safe(labelOf(change.was))) + ")";
}

void TextPrinter::change(const std::string&, const Change& change) {
  const bool isGone = change.kind == Change::Kind::vanished;
  const Cell name = nameCell(change.item.entry);
  if (isTerminal())
    return event(isGone ? Cell{"gone", Tint::faint} : badgeCell(change.item.badge, "no badge"), name, noteOf(change));
  // Lines that come one by one cannot be aligned with later ones.
  const char* what = isGone ? "gone" : change.kind == Change::Kind::appeared ? "new" : "badge";
  line(std::string(what) + "  " + tint(badgeCell(change.item.badge, NOTHING)) + "  " + tint(name));
  output_.flush();
}

void TextPrinter::extensionLeft() {
  if (isTerminal()) return event({"! stopped", Tint::bad}, {"the extension left the bus"}, "");
  line("extension  " + tinted("stopped", Tint::bad, look_));
  output_.flush();
}

void TextPrinter::extensionBack() {
  if (isTerminal()) return event({"back", Tint::good}, {"the extension answers again"}, "");
  line("extension  " + tinted("back", Tint::good, look_));
  output_.flush();
}

/// One line on a terminal: the time, unless that is narrow, what happened, to which name, and a note, where it fits.
void TextPrinter::event(const Cell& what, const Cell& name, const std::string& note) {
  std::size_t widest = displayWidth(what.text);
  for (const Badge& badge : badges_) widest = std::max(widest, 2 + displayWidth(safe(badge.label)));
  const std::string padding(widest - displayWidth(what.text), ' ');
  const std::string time = clockText() + "  ";
  const bool showsTime = time.size() + widest + 2 + ROOM_BESIDE_TIME <= *look_.width;
  const std::size_t before = widest + 2 + (showsTime ? time.size() : 0);
  const std::size_t room = *look_.width > before ? *look_.width - before : 0;
  const bool showsNote = displayWidth(name.text) + displayWidth(note) <= room;
  line(tinted(showsTime ? time : "", Tint::faint, look_) + tint(what) + padding + "  " +
       tinted(elided(name.text, std::max(room, NARROWEST_NAME), look_.unicode), name.tint, look_) +
       tinted(showsNote ? note : "", Tint::faint, look_));
  output_.flush();
}

void TextPrinter::line(const std::string& text) {
  output_.write(text + "\n");
}

// --- Menus and actions ----------------------------------------------------------------------------------------------

void TextPrinter::menu(const std::vector<MenuEntry>& entries) {
  Table table({Column(), Column(), {Align::left, true}});
  const char* const enabled = !isTerminal() ? "enabled" : look_.unicode ? "\u2713 enabled" : "+ enabled";
  const char* const greyed = !isTerminal() ? "greyed" : look_.unicode ? "\u2013 greyed" : "- greyed";
  for (const MenuEntry& entry : entries) {
    table.addRow({entry.enabled ? Cell{enabled, Tint::good} : Cell{greyed, Tint::faint},
                  {safe(entry.title), entry.enabled ? Tint::strong : Tint::faint},
                  {safe(entry.action), entry.enabled ? Tint::plain : Tint::faint}});
  }
  output_.write(table.text(look_));
  output_.flush();
}

void TextPrinter::performed(const MenuEntry& entry, const std::vector<std::string>& selection) {
  if (isTerminal()) {
    const std::string of = selection.size() == 1 ? safe(selection.front()) : counted(selection.size());
    line(tinted(safe(entry.title), Tint::strong, look_) + " was passed on for " + of);
  } else {
    for (const std::string& item : selection) line(safe(entry.title) + "  " + safe(item));
  }
  output_.flush();
}

// --- Status ---------------------------------------------------------------------------------------------------------

Cell TextPrinter::syncApplicationCell(const SyncApplicationState& state) const {
  const std::string address = SYNC_APPLICATION_ADDRESS;
  switch (state.outcome) {
    case SyncApplicationState::Outcome::answers:
      return {"answers on " + address + " (HTTP " + std::to_string(state.httpStatus) + ", " +
                  rounded(state.milliseconds) + ")",
              Tint::good};
    case SyncApplicationState::Outcome::refused:
      return {"not running (" + address + " refuses the connection)", Tint::bad};
    case SyncApplicationState::Outcome::timedOut:
      return {"does not answer on " + address + " (timed out after " + rounded(state.milliseconds) + ")", Tint::bad};
    case SyncApplicationState::Outcome::anotherUser:
      return {"another user's process (of uid " + std::to_string(state.user) + ") listens on " + address +
                  ": the extension sends it nothing",
              Tint::bad};
    case SyncApplicationState::Outcome::failed:
      break;
  }
  return {"does not answer on " + address + " as expected (" + safe(state.problem) + ")", Tint::bad};
}

Cell TextPrinter::extensionCell(const Status& status) const {
  if (status.process) {
    const std::string pid = "pid " + std::to_string(*status.process);
    return status.info ? Cell{"running (" + pid + ")", Tint::good}
                       : Cell{"running (" + pid + "), but does not answer", Tint::bad};
  }
  return status.canBeStarted ? Cell{"not running (starts on demand)", Tint::plain} : Cell{"not installed", Tint::bad};
}

std::string TextPrinter::foldersText(const Status& status) const {
  if (!status.info) return "unknown";
  if (status.info->observedFolders.empty()) return "none (the sync application is not configured)";
  std::string text;
  for (const auto& folder : status.info->observedFolders) text.append(text.empty() ? "" : ", ").append(safe(folder));
  return text;
}

void TextPrinter::status(const Status& status) {
  Table table(std::vector<Column>(2));
  const auto add = [&](const char* name, const Cell& cell) {
    table.addRow({{name, isTerminal() ? Tint::faint : Tint::plain}, cell});
  };
  const bool isComplete = status.info || !isTerminal();
  add("Extension", extensionCell(status));
  if (status.stopReason) add("Stopped because", {safe(*status.stopReason), Tint::bad});
  if (isComplete) add("Version", {status.info ? safe(status.info->version) : "unknown"});
  if (isComplete) add("Observed folder", {foldersText(status)});
  add("Sync application", syncApplicationCell(status.syncApplication));
  const bool hasLog = status.info && !status.info->logFile.empty();
  if (isComplete) add("Log file", {hasLog ? safe(status.info->logFile) : status.info ? "none" : "unknown"});
  // Whole: paths and reasons are copied from here.
  output_.write(table.text({look_.colour, look_.unicode, std::nullopt}));
  for (const Problem& problem : status.problems) {
    line("");
    line(tinted(safe(problem.text), Tint::bad, look_));
    line("  " + safe(problem.remedy));
  }
  output_.flush();
}

}  // namespace

std::unique_ptr<Printer> makeTextPrinter(Output& output, const Look& look) {
  return std::make_unique<TextPrinter>(output, look);
}

}  // namespace vornet::vi
