#include "db/Statement.hpp"

#include <limits>

#include "platform/Foundation.hpp"

namespace vornet {
namespace {

int byteCount(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    platform::fatalError("an SQL text too long for SQLite");
  return static_cast<int>(text.size());
}

}  // namespace

Statement::Statement(sqlite3* db, std::string_view sql)
    : prepared_(sqlite3_prepare_v2(db, sql.data(), byteCount(sql), &statement_, nullptr) == SQLITE_OK) {}

void Statement::bind(int index, std::string_view text) {
  sqlite3_bind_text(statement_, index, text.data(), byteCount(text), SQLITE_STATIC);
}

std::optional<std::string> Statement::text(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  if (!bytes || !platform::isValidUTF8(bytes)) return std::nullopt;
  return std::string(bytes);
}

std::string_view Statement::bytes(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  if (!bytes) return {};
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

void Statement::finalise() noexcept {
  sqlite3_finalize(statement_);
  statement_ = nullptr;
}

}  // namespace vornet
