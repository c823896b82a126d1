// An extension in another process that answers and sends too much: FloodingExtension BUS-ADDRESS ROOT-URL.
// It does what the "action" of PerformAction says, a word and numbers, and answers the call wrongly when all is sent:
//   changes MESSAGES ITEMS   BadgesChanged, each naming ITEMS times one of a hundred items of the root, "0" to "99",
//                            which get other badges with each message and are PENDING in the end
//   strangers MESSAGES ITEMS the same with items that nobody shows
//   folders MESSAGES ITEMS   PropertiesChanged with so many roots, the right one first
//   wrong MESSAGES ITEMS     BadgesChanged of another type
//   menu ITEMS               GetMenu answers so many entries from now on
#include <sstream>

#include "dbus/Interface.hpp"
#include "support/FakeExtension.hpp"

namespace {

using vornet::test::FakeExtension;

class Flood {
 public:
  Flood(const char* address, const char* root) : root_(root), extension_(address, {root}) {
    setBadges("SYNCED");
    extension_.menu = {{"share:", true}};
    extension_.nonsense["PerformAction"] = [this] {
      send(extension_.actions.back().front());
      return g_variant_new("(s)", "all is sent");
    };
  }

 private:
  static constexpr int ITEMS = 100;

  void setBadges(const std::string& identifier) {
    for (int i = 0; i < ITEMS; ++i) extension_.badges[root_ + "/" + std::to_string(i)] = identifier;
  }

  void send(const std::string& order) {
    std::istringstream words(order);
    std::string word;
    unsigned messages = 0;
    unsigned items = 0;
    words >> word >> messages >> items;
    if (word == "menu") extension_.menu.assign(messages, {"share:", true});
    if (word == "changes") setBadges("PENDING");
    for (unsigned i = 1; i <= messages; ++i) {
      if (word == "changes") sendChanges(items, "", i == messages);
      if (word == "strangers") sendChanges(items, "/elsewhere", false);
      if (word == "folders") sendFolders(items);
      if (word == "wrong") sendOfAnotherType(items);
    }
  }

  /// Two rounds with one badge, two with the other: each item changes again and again. The `last` ones are PENDING.
  void sendChanges(unsigned count, const std::string& folder, bool last) {
    FakeExtension::Changes changes;
    for (unsigned i = 0; i < count; ++i) {
      const char* different = i / (2 * ITEMS) % 2 == 0 ? "SKIPPED" : "SYNCED";
      changes.emplace_back(root_ + folder + "/" + std::to_string(i % ITEMS), last ? "PENDING" : different);
    }
    extension_.sendChanges(changes);
  }

  void sendFolders(unsigned count) {
    std::vector<std::string> folders(count, "file:///nowhere/at/all");
    folders.front() = root_;
    extension_.setFolders(folders);
  }

  void sendOfAnotherType(unsigned count) {
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("aas"));
    const char* const texts[] = {"a", "b", nullptr};
    for (unsigned i = 0; i < count; ++i) g_variant_builder_add(&list, "^as", texts);
    extension_.send(vornet::dbus::INTERFACE, "BadgesChanged", g_variant_new("(aas)", &list));
  }

  const std::string root_;
  FakeExtension extension_;
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  const Flood flood(arguments[1], arguments[2]);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
