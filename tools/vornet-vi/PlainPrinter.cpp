#include "TextPrinter.hpp"

namespace vornet::vi {
namespace {

using Align = Table::Align;

constexpr const char* NOTHING = "-";

class PlainPrinter final : public TextPrinter {
 public:
  PlainPrinter(Output& output, const Look& look) : TextPrinter(output, look) { look_.width.reset(); }

  void list(const std::string&, const std::vector<Item>& items, bool) override {
    Table table{{Align::left, Align::left, Align::right, Align::left}};
    for (const Item& item : items) {
      const bool hasSize = item.entry.kind == EntryKind::file;
      table.addRow({badgeCell(item.badge, NOTHING),
                    {kindName(item.entry.kind), Tint::plain},
                    {hasSize ? std::to_string(item.entry.size) : NOTHING, Tint::plain},
                    {safe(item.entry.name), Tint::plain}});
    }
    output_.write(table.text(look_));
    output_.flush();
  }

  void change(const std::string&, const Change& change) override {
    const Cell badge = badgeCell(change.item.badge, NOTHING);
    switch (change.kind) {
      case Change::Kind::badge:
        return row("badge", badge, safe(change.item.entry.name));
      case Change::Kind::appeared:
        return row("new", badge, safe(change.item.entry.name));
      case Change::Kind::vanished:
        return row("gone", badge, safe(change.item.entry.name));
    }
  }

  void extensionLeft() override { row("extension", {"stopped", Tint::bad}, ""); }
  void extensionBack() override { row("extension", {"back", Tint::good}, ""); }

  void menu(const std::vector<MenuEntry>& entries) override {
    Table table{{Align::left, Align::left, Align::left}};
    for (const MenuEntry& entry : entries) {
      table.addRow({entry.enabled ? Cell{"enabled", Tint::good} : Cell{"greyed", Tint::faint},
                    {safe(entry.title), Tint::plain},
                    {safe(entry.action), Tint::plain}});
    }
    output_.write(table.text(look_));
    output_.flush();
  }

  void performed(const MenuEntry& entry, const std::vector<std::string>& selection) override {
    for (const std::string& item : selection) {
      output_.write(safe(entry.title) + "  " + safe(item) + "\n");
    }
    output_.flush();
  }

  void status(const Status& status) override {
    Table table{{Align::left, Align::left}};
    const auto add = [&table](const char* name, const Cell& cell) { table.addRow({{name, Tint::plain}, cell}); };
    add("Extension", extensionCell(status));
    if (status.stopReason) {
      add("Stopped because", {safe(*status.stopReason), Tint::bad});
    }
    add("Version", {status.info ? safe(status.info->version) : "unknown", Tint::plain});
    add("Observed folder", {foldersText(status), Tint::plain});
    add("Sync application", syncApplicationCell(status.syncApplication));
    const bool hasLog = status.info && !status.info->logFile.empty();
    add("Log file", {hasLog ? safe(status.info->logFile) : status.info ? "none" : "unknown", Tint::plain});
    output_.write(table.text(look_));
    output_.flush();
  }

 private:
  /// Lines that come one by one cannot be aligned with later ones; two spaces part the fields.
  void row(const char* event, const Cell& what, const std::string& name) {
    std::string text = std::string{event} + "  " + tinted(what.text, what.tint, look_);
    if (!name.empty()) {
      text.append("  ").append(name);
    }
    output_.write(text + "\n");
    output_.flush();
  }
};

}  // namespace

std::unique_ptr<Printer> makePlainPrinter(Output& output, const Look& look) {
  return std::make_unique<PlainPrinter>(output, look);
}

}  // namespace vornet::vi
