#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension.hpp"
#include "Folder.hpp"
#include "Status.hpp"
#include "Table.hpp"

namespace vornet::vi {

/// Something that happened while a folder was watched.
struct Change {
  enum class Kind { badge, appeared, vanished };
  Kind kind = Kind::badge;
  Item item;        ///< as it is now; when it vanished: as it was
  std::string was;  ///< the badge before; for Kind::badge
};

/// Thrown when nobody reads the output any more. Not a failure to report.
struct BrokenPipe {};

/// A file descriptor to write lines to, collected until flushed. SIGPIPE must be ignored. Not thread-safe.
class Output {
 public:
  explicit Output(int descriptor) : descriptor_(descriptor) {}

  /// Adds `text`; writes when enough is collected.
  void write(std::string_view text);
  /// Writes everything. Throws BrokenPipe, or std::runtime_error when the output cannot be written.
  void flush();

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
  std::string pending_;
};

/// How results are shown; one implementation for each kind of reader. Whatever is shown is safe for a terminal.
/// Not thread-safe. Operations may throw what Output throws.
class Printer {
 public:
  virtual ~Printer() = default;
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;

  /// The badges that the extension has registered; call it before any of the following.
  void useBadges(std::vector<Badge> badges) { badges_ = std::move(badges); }

  /// The entries of `folder` in the order to show; `watched`: what follows are changes.
  virtual void list(const std::string& folder, const std::vector<Item>& items, bool watched) = 0;
  virtual void change(const std::string& folder, const Change& change) = 0;
  /// While watching: the extension left, or is back.
  virtual void extensionLeft() = 0;
  virtual void extensionBack() = 0;
  virtual void menu(const std::vector<MenuEntry>& entries) = 0;
  virtual void performed(const MenuEntry& entry, const std::vector<std::string>& selection) = 0;
  virtual void status(const Status& status) = 0;

 protected:
  explicit Printer(Output& output) : output_(output) {}

  /// What a badge is called: its label as registered, the identifier itself when it is not.
  std::string labelOf(const std::string& identifier) const;

  Output& output_;
  std::vector<Badge> badges_;
};

/// For people at a terminal when `look` has a width: a table that fits it, with headings and a summary; else for pipes
/// and files: the same table alone, sizes in bytes.
std::unique_ptr<Printer> makeTextPrinter(Output& output, const Look& look);
/// For programs: one JSON object a line.
std::unique_ptr<Printer> makeJSONPrinter(Output& output);

}  // namespace vornet::vi
