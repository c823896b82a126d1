// The resident memory of the statuses of 50 folders of ten thousand items. The counters have the figures; the times of
// these benchmarks mean nothing.
#include <memory>
#include <memory_resource>
#include <unordered_map>
#include <vector>

#include "support/Items.hpp"
#include "support/ProcessFigures.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/RunningExtension.hpp"

namespace vornet::bench {
namespace {

void take(benchmark::State& state, double (*figure)()) {
  double value = 0;
  for (auto _ : state) value = figure();
  if (value <= 0) state.SkipWithError("no figure");
  state.counters["value"] = value;
}

/// The growth of the extension process until it knows all folders.
double ours() {
  auto& extension = *fixture<RunningExtension>();
  extension.restart();
  const double before = residentMemory(extension.process());
  for (std::size_t i = 0; i < FOLDERS; ++i) extension.observe(i);
  return residentMemory(extension.process()) - before;
}

/// All names in one block a folder, without the folder's own path; a table of 32-bit offsets.
double limit() {
  struct Slot {
    std::uint32_t offset;
    std::uint16_t length;
    std::int8_t code;
  };
  struct Folder {
    std::string names;
    std::vector<Slot> slots;
  };
  return memoryOf([] {
    std::vector<Folder> folders(FOLDERS);
    for (std::size_t number = 0; number < FOLDERS; ++number) {
      const std::string key = folderKeyOf(number);
      auto& [names, slots] = folders[number];
      const std::string sample = itemOf("", 0);
      names.reserve(sample.size() * ENTRIES);
      slots.resize(16'384);  // the next power of two: a table that is searched needs room
      for (std::size_t i = 0; i < ENTRIES; ++i) {
        const std::string name = itemOf("", i);
        slots[i] = {static_cast<std::uint32_t>(names.size()), static_cast<std::uint16_t>(name.size()), 2};
        names += name;
      }
    }
    return folders;
  });
}

double straightforward() {
  return memoryOf([] {
    std::unordered_map<std::string, std::unordered_map<std::string, StatusCode>> folders;
    for (std::size_t number = 0; number < FOLDERS; ++number) {
      const std::string key = folderKeyOf(number);
      for (std::size_t i = 0; i < ENTRIES; ++i) folders[key].emplace(itemOf(key, i), codeOf(i));
    }
    return folders;
  });
}

BENCHMARK_CAPTURE(take, ours, &ours)->Name("CacheMemory/ours")->Iterations(1);
BENCHMARK_CAPTURE(take, limit, &limit)->Name("CacheMemory/limit")->Iterations(1);
BENCHMARK_CAPTURE(take, straightforward, &straightforward)->Name("CacheMemory/straightforward")->Iterations(1);

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::RunningExtension>(argc, argv);
}
