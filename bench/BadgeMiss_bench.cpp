// A badge request that the cache passes on to the sync database.
#include <sqlite3.h>

#include "cache/DirCache.hpp"
#include "logging/Logging.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/Items.hpp"
#include "support/RunBenchmarks.hpp"

namespace vornet::bench {
namespace {

struct SyncDatabase {
  test::Environment environment;
  std::string file = environment.container() / App().SYNC_DB_NAME;
  std::string path = itemOf(folderKeyOf(0), ENTRIES / 2);
  LRUCache cache;

  SyncDatabase() {
    setupLogger("INFO");  // as the extension does: no message is built below that level
    std::vector<std::pair<std::string, int>> rows;
    for (std::size_t i = 0; i < ENTRIES; ++i) rows.emplace_back(itemOf(folderKeyOf(0), i), static_cast<int>(codeOf(i)));
    test::makeSyncDatabase(file, rows);
  }
};

void ours(benchmark::State& state) {
  const auto& [environment, file, path, cache] = *fixture<SyncDatabase>();
  for (auto _ : state)
    if (cache.statusForPath(path) != codeOf(ENTRIES / 2)) state.SkipWithError("a wrong status");
}

/// SQLite's own calls, with the same statement.
void limit(benchmark::State& state) {
  const auto& [environment, file, path, cache] = *fixture<SyncDatabase>();
  const std::string folder = path + "/";
  for (auto _ : state) {
    sqlite3* database = nullptr;
    sqlite3_stmt* statement = nullptr;
    sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_prepare_v2(database, "SELECT status FROM ea WHERE path in (?, ?) LIMIT 1", -1, &statement, nullptr);
    sqlite3_bind_text(statement, 1, path.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, folder.c_str(), -1, SQLITE_STATIC);
    const bool found = sqlite3_step(statement) == SQLITE_ROW;
    if (!found || sqlite3_column_int(statement, 0) != codeOf(ENTRIES / 2)) state.SkipWithError("a wrong status");
    sqlite3_finalize(statement);
    sqlite3_close(database);
  }
}

BENCHMARK(ours)->Name("BadgeMiss/ours");
BENCHMARK(limit)->Name("BadgeMiss/limit");

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::SyncDatabase>(argc, argv);
}
