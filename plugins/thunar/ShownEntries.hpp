#pragma once

#include <functional>
#include <list>
#include <string>

#include "Thunarx.hpp"

namespace vornet::thunar {

/// The entries of the menu that was opened last, while they live. What Thunar draws for them follows whether they are
/// enabled, which Thunar itself does not see to. The main thread's only.
class ShownEntries {
 public:
  ShownEntries() = default;
  ~ShownEntries();
  ShownEntries(const ShownEntries&) = delete;
  ShownEntries& operator=(const ShownEntries&) = delete;

  /// Takes no reference.
  void add(ThunarxMenuItem* item, const std::string& action);
  void clear();

  /// Whether any of them still lives.
  bool any() const;

  void setEnabled(const std::function<bool(const std::string& action)>& isEnabled);

 private:
  struct Entry {
    Entry(ThunarxMenuItem* shown, const std::string& chosen) : action(chosen) { g_weak_ref_init(&item, shown); }
    ~Entry() { g_weak_ref_clear(&item); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    mutable GWeakRef item;
    std::string action;
  };

  static gboolean bind(gpointer self);

  std::list<Entry> entries_;
  guint binding_ = 0;  ///< the source that calls bind()
};

}  // namespace vornet::thunar
