#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Manager.hpp"

namespace vornet::test {

/// A file as a file manager holds it: an object with the file manager's FileInfo interface. `ask` asks the plug-in for
/// the emblem. After an invalidation the main loop asks again if the file is watched; otherwise the next `watch` does.
/// Not thread-safe.
class FakeFile {
 public:
  /// `url` names it; any scheme. `provider` is the plug-in's, not owned, null once it has gone.
  FakeFile(std::string url, gtk::manager::InfoProvider*& provider);
  ~FakeFile();
  FakeFile(const FakeFile&) = delete;
  FakeFile& operator=(const FakeFile&) = delete;

  gtk::manager::FileInfo* info() const;

  /// The file manager begins to watch the file's folder: the plug-in is asked if the emblem is not known.
  void watch();
  /// The file manager stops watching it: the present emblem is kept, and no answer awaited.
  void unwatch();

  /// Drops emblem and texts and asks the plug-in at once. What it returned.
  gtk::manager::OperationResult ask();

  /// The emblems that were added since it was last asked for.
  const std::vector<std::string>& emblems() const;
  /// Its text in a column; none when the plug-in gave none, which Nemo and Caja show as "unknown".
  std::optional<std::string> text(const std::string& column) const;
  /// True if the plug-in has not answered the last question yet.
  bool isWaiting() const;
  /// True if it has not been invalidated since.
  bool isValid() const;
  /// How often the plug-in was asked.
  int questions() const;
  /// How many references there are besides that of this object.
  unsigned otherReferences() const;

 private:
  struct Object;
  static GType type();
  Object* object_;
};

}  // namespace vornet::test
