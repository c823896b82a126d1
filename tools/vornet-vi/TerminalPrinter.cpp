#include <algorithm>
#include <ctime>
#include <map>

#include "DisplayText.hpp"
#include "TextPrinter.hpp"
#include "client/GLibPtr.hpp"

namespace vornet::vi {
namespace {

using Align = Table::Align;

std::string sizeText(const Entry& entry) {
  if (entry.kind != EntryKind::file) {
    return "";
  }
  const client::GCharPtr formatted{g_format_size(entry.size)};
  std::string text = formatted.get();
  // GLib separates the unit by a no-break space, which not every locale can show.
  if (const auto space = text.find("\u00A0"); space != std::string::npos) {
    text.erase(space, 1);
    text[space] = ' ';
  }
  return text;
}

std::string clockText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16] = "";
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

std::string counted(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

class TerminalPrinter final : public TextPrinter {
 public:
  TerminalPrinter(Output& output, const Look& look) : TextPrinter(output, look) {}

  void list(const std::string& folder, const std::vector<Item>& items, bool watched) override {
    line(Cell{safe(folder), Tint::strong});
    Table table{{Align::left, Align::left, Align::right, Align::left}};
    table.addRow({{"Badge", Tint::faint}, {"Kind", Tint::faint}, {"Size", Tint::faint}, {"Name", Tint::faint}});
    std::map<std::string, std::size_t> counts;
    for (const Item& item : items) {
      const bool isFolder = item.entry.kind == EntryKind::folder;
      table.addRow({badgeCell(item.badge, ""),
                    {kindName(item.entry.kind), Tint::plain},
                    {sizeText(item.entry), Tint::plain},
                    nameCell(item.entry, isFolder)});
      ++counts[item.badge];
    }
    if (!items.empty()) {
      output_.write(table.text(look_));
    }
    std::string summary = tinted(counted(items.size(), "item", "items"), Tint::faint, look_);
    const char* separator = ": ";
    for (const auto& [identifier, count] : counts) {
      const Cell cell = badgeCell(identifier, "no badge");
      summary.append(tinted(std::string{separator}.append(std::to_string(count)).append(" "), Tint::faint, look_))
          .append(tinted(cell.text, identifier.empty() ? Tint::faint : cell.tint, look_));
      separator = ", ";
    }
    output_.write(summary + "\n");
    if (watched) {
      line(Cell{"Watching for changes; Ctrl-C ends it.", Tint::faint});
    }
    output_.flush();
  }

  void change(const std::string&, const Change& change) override {
    const bool isFolder = change.item.entry.kind == EntryKind::folder;
    const Cell name = nameCell(change.item.entry, isFolder);
    Cell what =
        change.kind == Change::Kind::vanished ? Cell{"gone", Tint::faint} : badgeCell(change.item.badge, "no badge");
    event(what, name, noteOf(change));
  }

  void extensionLeft() override { event({"! stopped", Tint::bad}, {"the extension left the bus", Tint::plain}, ""); }
  void extensionBack() override { event({"back", Tint::good}, {"the extension answers again", Tint::plain}, ""); }

  void menu(const std::vector<MenuEntry>& entries) override {
    Table table{{Align::left, Align::left, Align::left}};
    for (const MenuEntry& entry : entries) {
      const Tint tint = entry.enabled ? Tint::plain : Tint::faint;
      table.addRow({entry.enabled ? Cell{look_.unicode ? "\u2713 enabled" : "+ enabled", Tint::good}
                                  : Cell{look_.unicode ? "\u2013 greyed" : "- greyed", Tint::faint},
                    {safe(entry.title), entry.enabled ? Tint::strong : Tint::faint},
                    {safe(entry.action), tint}});
    }
    output_.write(table.text(look_));
    output_.flush();
  }

  void performed(const MenuEntry& entry, const std::vector<std::string>& selection) override {
    const std::string of = selection.size() == 1 ? safe(selection.front()) : counted(selection.size(), "item", "items");
    line(Cell{tinted(safe(entry.title), Tint::strong, look_) + " was passed on for " + of, Tint::plain});
    output_.flush();
  }

  void status(const Status& status) override {
    const auto row = [this](const char* name, const Cell& cell) {
      std::string heading = name;
      heading.resize(18, ' ');
      output_.write(tinted(heading, Tint::faint, look_) + tinted(cell.text, cell.tint, look_) + "\n");
    };
    row("Extension", extensionCell(status));
    if (status.stopReason) {
      row("Stopped because", {safe(*status.stopReason), Tint::bad});
    }
    if (status.info) {
      row("Version", {safe(status.info->version), Tint::plain});
      row("Observed folder", {foldersText(status), Tint::plain});
    }
    row("Sync application", syncApplicationCell(status.syncApplication));
    if (status.info) {
      row("Log file", {status.info->logFile.empty() ? "none" : safe(status.info->logFile), Tint::plain});
    }
    output_.flush();
  }

 private:
  std::string noteOf(const Change& change) const {
    switch (change.kind) {
      case Change::Kind::appeared:
        return "new";
      case Change::Kind::badge:
        return std::string{"was "}.append(change.was.empty() ? "without badge" : safe(labelOf(change.was)));
      case Change::Kind::vanished:
        break;
    }
    return {};
  }

  Cell nameCell(const Entry& entry, bool isFolder) const {
    return {safe(entry.name) + (isFolder ? "/" : ""), isFolder ? Tint::strong : Tint::plain};
  }

  void line(const Cell& cell) { output_.write(tinted(cell.text, cell.tint, look_) + "\n"); }

  /// One line: the time, what happened, to which name, and a note after it where there is room.
  void event(const Cell& what, const Cell& name, const std::string& note) {
    Cell padded = what;
    std::size_t widest = displayWidth(padded.text);
    for (const Badge& badge : badges_) {
      widest = std::max(widest, 2 + displayWidth(safe(badge.label)));
    }
    padded.text.append(widest - displayWidth(padded.text), ' ');
    const std::size_t before = 8 + 2 + widest + 2;
    const std::size_t noteWidth = note.empty() ? 0 : 3 + displayWidth(note);
    const std::size_t columns = look_.width.value_or(80);
    const std::size_t room = columns > before + noteWidth + 8 ? columns - before - noteWidth : 8;
    std::string text = tinted(clockText(), Tint::faint, look_) + "  " + tinted(padded.text, what.tint, look_) + "  " +
                       tinted(elided(name.text, room, look_.unicode), name.tint, look_);
    if (!note.empty()) {
      text.append(tinted(std::string{" ("}.append(note).append(")"), Tint::faint, look_));
    }
    output_.write(text + "\n");
    output_.flush();
  }
};

}  // namespace

std::unique_ptr<Printer> makeTerminalPrinter(Output& output, const Look& look) {
  return std::make_unique<TerminalPrinter>(output, look);
}

}  // namespace vornet::vi
