#pragma once

#include <string>
#include <vector>

#include "Manager.hpp"

namespace vornet::test {

/// A file as a file manager holds it: an object with the file manager's FileInfo interface. The object's user asks the
/// plug-in for the emblem with `ask`; it is asked again by itself after it was invalidated, from the main loop, while
/// it is watched. What is invalidated and not watched is asked for with the next `watch`. Not thread-safe.
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
  /// It ceases to: the emblem that it has is kept.
  void unwatch();

  /// Throws the emblem away and asks the plug-in at once. What it returned.
  gtk::manager::OperationResult ask();

  /// The emblems that were added since it was last asked for.
  const std::vector<std::string>& emblems() const;
  /// Whether nobody has invalidated it since.
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
