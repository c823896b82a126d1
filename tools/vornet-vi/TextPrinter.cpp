#include "TextPrinter.hpp"

#include <array>
#include <cstdio>

#include "DisplayText.hpp"

namespace vornet::vi {
namespace {

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
  for (const Symbol& symbol : SYMBOLS) {
    if (identifier == symbol.identifier) {
      return symbol;
    }
  }
  return UNKNOWN;
}

std::string rounded(double milliseconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.0f ms", milliseconds);
  return text.data();
}

}  // namespace

std::string TextPrinter::safe(const std::string& raw) const {
  return safeText(raw, look_.unicode);
}

Cell TextPrinter::badgeCell(const std::string& identifier, const char* none) const {
  if (identifier.empty()) {
    return {none, Tint::plain};
  }
  const Symbol& symbol = symbolOf(identifier);
  return {std::string{look_.unicode ? symbol.unicode : symbol.ascii} + " " + safe(labelOf(identifier)), symbol.tint};
}

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
  if (!status.info) {
    return "unknown";
  }
  if (status.info->observedFolders.empty()) {
    return "none (the sync application is not configured)";
  }
  std::string text;
  for (const std::string& folder : status.info->observedFolders) {
    text.append(text.empty() ? "" : ", ").append(safe(folder));
  }
  return text;
}

}  // namespace vornet::vi
