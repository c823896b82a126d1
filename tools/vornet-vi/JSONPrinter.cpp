#include <boost/json.hpp>
#include <cmath>

#include "DisplayText.hpp"
#include "Printer.hpp"
#include "client/Paths.hpp"

namespace vornet::vi {
namespace {

namespace json = boost::json;

/// JSON holds UTF-8 alone; the URL beside such a text is exact.
json::string text(const std::string& raw) {
  return json::string(validUTF8(raw));
}

class JSONPrinter final : public Printer {
 public:
  explicit JSONPrinter(Output& output) : Printer(output) {}

  void list(const std::string& folder, const std::vector<Item>& items, bool watched) override {
    for (const Item& item : items) {
      json::object object;
      if (watched) object["event"] = "entry";
      addItem(object, folder, item);
      write(object);
    }
    if (watched) write({{"event", "watching"}, {"url", client::urlOfPath(folder)}, {"entries", items.size()}});
    output_.flush();
  }

  void change(const std::string& folder, const Change& change) override {
    json::object object;
    switch (change.kind) {
      case Change::Kind::badge:
        object["event"] = "badge";
        break;
      case Change::Kind::appeared:
        object["event"] = "new";
        break;
      case Change::Kind::vanished:
        object["event"] = "gone";
        break;
    }
    addItem(object, folder, change.item);
    if (change.kind == Change::Kind::badge) object["was"] = text(change.was);
    write(object);
    output_.flush();
  }

  void extensionLeft() override {
    write({{"event", "extension"}, {"running", false}});
    output_.flush();
  }
  void extensionBack() override {
    write({{"event", "extension"}, {"running", true}});
    output_.flush();
  }

  void menu(const std::vector<MenuEntry>& entries) override {
    for (const MenuEntry& entry : entries) {
      write({{"title", text(entry.title)},
             {"action", text(entry.action)},
             {"enabled", entry.enabled},
             {"image", text(entry.icon)}});
    }
    output_.flush();
  }

  void performed(const MenuEntry& entry, const std::vector<std::string>& selection) override {
    json::array items;
    for (const std::string& path : selection) items.emplace_back(client::urlOfPath(path));
    write({{"title", text(entry.title)}, {"action", text(entry.action)}, {"items", std::move(items)}});
    output_.flush();
  }

  void status(const Status& status) override {
    json::object object{{"running", status.process.has_value()}, {"can_be_started", status.canBeStarted}};
    object["pid"] = status.process ? json::value(*status.process) : json::value(nullptr);
    object["answers"] = status.info.has_value();
    object["stop_reason"] = status.stopReason ? json::value(text(*status.stopReason)) : json::value(nullptr);
    if (status.info) {
      json::array folders;
      for (const std::string& folder : status.info->observedFolders)
        folders.emplace_back(folder.starts_with('/') ? json::string(client::urlOfPath(folder)) : text(folder));
      object["version"] = text(status.info->version);
      object["observed_folders"] = std::move(folders);
      object["log_file"] = text(status.info->logFile);
    } else {
      object["version"] = nullptr;
      object["observed_folders"] = nullptr;
      object["log_file"] = nullptr;
    }
    object["sync_application"] = syncApplication(status.syncApplication);
    json::array problems;
    for (const Problem& problem : status.problems)
      problems.push_back({{"id", problem.id}, {"problem", text(problem.text)}, {"remedy", text(problem.remedy)}});
    object["problems"] = std::move(problems);
    write(object);
    output_.flush();
  }

 private:
  void addItem(json::object& object, const std::string& folder, const Item& item) const {
    object["name"] = text(item.entry.name);
    object["url"] = client::urlOfPath(client::childPath(folder, item.entry.name));
    object["kind"] = kindName(item.entry.kind);
    object["size"] = item.entry.kind == EntryKind::file ? json::value(item.entry.size) : json::value(nullptr);
    object["badge"] = text(item.badge);
    object["label"] = text(labelOf(item.badge));
  }

  static json::object syncApplication(const SyncApplicationState& state) {
    json::object object{{"address", SYNC_APPLICATION_ADDRESS}};
    switch (state.outcome) {
      case SyncApplicationState::Outcome::answers:
        object["outcome"] = "answers";
        break;
      case SyncApplicationState::Outcome::refused:
        object["outcome"] = "refused";
        break;
      case SyncApplicationState::Outcome::timedOut:
        object["outcome"] = "timed out";
        break;
      case SyncApplicationState::Outcome::failed:
        object["outcome"] = "failed";
        object["problem"] = text(state.problem);
        break;
      case SyncApplicationState::Outcome::anotherUser:
        object["outcome"] = "another user";
        object["uid"] = state.user;
        break;
    }
    object["http_status"] = state.httpStatus == 0 ? json::value(nullptr) : json::value(state.httpStatus);
    object["milliseconds"] = std::llround(state.milliseconds);
    return object;
  }

  void write(const json::object& object) { output_.write(printableJSON(json::serialize(object)) + "\n"); }
};

}  // namespace

std::unique_ptr<Printer> makeJSONPrinter(Output& output) {
  return std::make_unique<JSONPrinter>(output);
}

}  // namespace vornet::vi
