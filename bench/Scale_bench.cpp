// What grows with a folder, and what with the sync database: each figure of a large one ("ours") beside that of a small
// one
// ("limit"). The databases have 5 million rows and 10,000, the folders 100,000 items and 10,000.
#include "db/SyncDB.hpp"
#include "logging/Logging.hpp"
#include "support/Databases.hpp"
#include "support/Items.hpp"
#include "support/ProcessFigures.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/RunningExtension.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::bench {
namespace {

// --- Databases ------------------------------------------------------------------------------------------------------

/// A sync database of `folders` folders of ENTRIES items.
class LargeDatabase : public SyncDB {
 public:
  explicit LargeDatabase(std::size_t folders) : file_(folder_ / "sync.db") {
    test::makeSyncDatabase(file_, {});
    test::Database database(file_);
    database.run("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; BEGIN");
    for (std::size_t folder = 0; folder < folders; ++folder) {
      database.run("WITH RECURSIVE numbers(n) AS (VALUES (0) UNION ALL SELECT n + 1 FROM numbers LIMIT " +
                   std::to_string(ENTRIES) + ") INSERT INTO ea SELECT printf('" + folderKeyOf(folder) +
                   "Report number %05d (final version).docx', n), 2 FROM numbers");
    }
    database.run("COMMIT");
  }

 private:
  std::string _getSyncDBPath() const override { return file_; }

  test::TemporaryFolder folder_;
  std::string file_;
};

template <std::size_t FOLDERS_IN_DATABASE>
SyncDB& database() {
  static auto& made = *new LargeDatabase(FOLDERS_IN_DATABASE);
  return made;
}

using MakeDatabase = SyncDB& (*)();

void miss(benchmark::State& state, MakeDatabase make) {
  SyncDB& database = make();
  const std::string path = itemOf(folderKeyOf(0), ENTRIES / 2);
  for (auto _ : state)
    if (database.pathSyncStatus(path) != 2) state.SkipWithError("a wrong status");
}

/// The query of the folder `key`, which by its definition looks at every row below it.
void folder(benchmark::State& state, MakeDatabase make, const std::string& key, std::size_t expected) {
  SyncDB& database = make();
  for (auto _ : state) {
    const auto statuses = database.directorySyncStatus(key);
    if ((statuses ? statuses->size() : 0) != expected) state.SkipWithError("wrong statuses");
  }
}

constexpr MakeDatabase LARGE = &database<500>;
constexpr MakeDatabase SMALL = &database<1>;
BENCHMARK_CAPTURE(miss, large, LARGE)->Name("ScaleMiss/ours");
BENCHMARK_CAPTURE(miss, small, SMALL)->Name("ScaleMiss/limit");
BENCHMARK_CAPTURE(folder, large, LARGE, folderKeyOf(0), ENTRIES)->Name("ScaleFolder/ours");
BENCHMARK_CAPTURE(folder, small, SMALL, folderKeyOf(0), ENTRIES)->Name("ScaleFolder/limit");
BENCHMARK_CAPTURE(folder, largeSubtree, LARGE, "/Projects/", 0)->Name("ScaleSubtree/ours");
BENCHMARK_CAPTURE(folder, smallSubtree, SMALL, "/Projects/", 0)->Name("ScaleSubtree/limit");

// --- Folders --------------------------------------------------------------------------------------------------------

/// From the beginning of observing a folder until its badges come from the filled cache; and the memory it takes.
void fill(benchmark::State& state, std::size_t entries) {
  auto& extension = *fixture<RunningExtension>();
  for (auto _ : state) {
    state.PauseTiming();
    extension.restart(entries);
    const double before = residentMemory(extension.process());
    state.ResumeTiming();
    extension.observe(0);
    state.counters["value"] = residentMemory(extension.process()) - before;
  }
}

BENCHMARK_CAPTURE(fill, large, 10 * ENTRIES)->Name("ScaleFill/ours")->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(fill, small, ENTRIES)->Name("ScaleFill/limit")->Iterations(1)->UseRealTime();

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  vornet::logger().setOutputLogLevel(
      vornet::LogLevel::Info);  // as in the extension: no message is built below that level
  return vornet::bench::runBenchmarks<vornet::bench::RunningExtension>(argc, argv);
}
