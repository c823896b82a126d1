#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text that is safe to show and whose width on a terminal is known. File names hold any bytes but "/" and NUL: a raw
/// control byte could drive the reader's terminal, an invisible one could disguise a name.
/// Free functions without state: any thread.
namespace vornet::vi {

/// `raw` with everything unprintable escaped: "\n", "\t", "\r", "\e", a backslash as "\\", other ASCII control
/// characters and bytes that are not UTF-8 as "\xHH", other characters that draw nothing or turn the text's direction
/// as "\u{HEX}". With `unicode` false (a locale that is not UTF-8) every character beyond ASCII is escaped too.
std::string safeText(std::string_view raw, bool unicode);

/// The columns that `safe`, a result of safeText, takes: two for a wide character, none for a combining one.
std::size_t displayWidth(std::string_view safe);

/// `safe` in at most `columns` columns: what does not fit is cut out of the middle and replaced by "…" (or "..."); no
/// combining character is separated from its base. An escape may be cut.
std::string elided(std::string_view safe, std::size_t columns, bool unicode);

/// `raw` as UTF-8: each byte that is not is replaced by U+FFFD.
std::string validUTF8(std::string_view raw);

/// JSON text (UTF-8) with characters that are not printable written as "\uHHHH", so that it may be shown as it is.
std::string printableJSON(std::string_view json);

/// True when the locale in force writes UTF-8 (setlocale was called before).
bool localeIsUTF8();

}  // namespace vornet::vi
