// A badge request that the filled cache answers, from the file manager's callback until the badge is set.
#include <boost/unordered/unordered_flat_map.hpp>
#include <map>
#include <random>
#include <unordered_map>

#include "base/AppConst.hpp"
#include "extension/FinderSync.hpp"
#include "extension/SharedObjects.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/Items.hpp"
#include "support/RunBenchmarks.hpp"

namespace vornet::bench {
namespace {

constexpr std::size_t SAMPLE = 1 << 16;  // of the items, in random order

struct Sample {
  std::string folder;
  std::string path;
  platform::FileURL url;
};

struct Folders {
  test::Environment environment;
  FinderSync extension;
  std::vector<Sample> samples;

  Folders() {
    const std::string root = environment.folder() / "Kelvane";
    test::writePreferences(environment.container() / App().KELVANE_PLIST, root);
    if (!extension.init()) throw std::runtime_error("no extension");
    auto& cache = statusManager()->dirCache();
    for (std::size_t folder = 0; folder < FOLDERS; ++folder) {
      const std::string key = folderKeyOf(folder);
      StatusTable table;
      for (std::size_t i = 0; i < ENTRIES; ++i) table.set(itemOf(key, i), codeOf(i));
      cache.enterNewDir(key);
      cache.update(key, std::move(table));
      platform::host::folderShown(root + key.substr(0, key.size() - 1));
    }
    std::mt19937 random(1);
    for (std::size_t i = 0; i < SAMPLE; ++i) {
      const std::string key = folderKeyOf(random() % FOLDERS);
      const std::string path = itemOf(key, random() % ENTRIES);
      samples.push_back({key, path, platform::FileURL::fileURLWithPath(root + path)});
    }
  }
  ~Folders() { statusManager()->stop_listener(); }
};

/// Calls `request` with one sample again and again, or with one after another.
template <class Request>
void ask(benchmark::State& state, bool random, Request request) {
  const auto& samples = fixture<Folders>()->samples;
  std::size_t i = 0;
  for (auto _ : state) {
    request(samples[i]);
    if (random) i = (i + 1) % SAMPLE;
  }
}

void ours(benchmark::State& state, bool random) {
  auto& extension = fixture<Folders>()->extension;
  const auto request = [&](const Sample& sample) {
    const platform::host::BadgeRequest asked(sample.url);
    extension.requestBadgeIdentifierForURL(sample.url);
    const auto* answer = &asked.answer();
    benchmark::DoNotOptimize(answer);
  };
  request(fixture<Folders>()->samples[0]);
  ask(state, random, request);
}

/// Two look-ups and the code's identifier, and nothing else.
void limit(benchmark::State& state, bool random) {
  using Items = boost::unordered_flat_map<std::string, StatusCode, TextHash, std::equal_to<>>;
  static const auto folders = [] {
    boost::unordered_flat_map<std::string, Items, TextHash, std::equal_to<>> made;
    for (std::size_t folder = 0; folder < FOLDERS; ++folder) {
      const std::string key = folderKeyOf(folder);
      for (std::size_t i = 0; i < ENTRIES; ++i) made[key].emplace(itemOf(key, i), codeOf(i));
    }
    return made;
  }();
  constexpr std::string_view IDENTIFIERS[] = {statusNone, statusFailure, statusInProgress, statusSynced};
  ask(state, random, [&](const Sample& sample) {
    const auto& items = folders.find(std::string_view(sample.folder))->second;
    const StatusCode code = items.find(std::string_view(sample.path))->second;
    std::string_view identifier = IDENTIFIERS[code + 1];
    benchmark::DoNotOptimize(identifier);
  });
}

/// The standard library's maps, keyed by texts that are made for each question.
void straightforward(benchmark::State& state, bool random) {
  static const auto folders = [] {
    std::unordered_map<std::string, std::unordered_map<std::string, StatusCode>> made;
    for (std::size_t folder = 0; folder < FOLDERS; ++folder) {
      const std::string key = folderKeyOf(folder);
      for (std::size_t i = 0; i < ENTRIES; ++i) made[key].emplace(itemOf(key, i), codeOf(i));
    }
    return made;
  }();
  static const std::unordered_map<StatusCode, std::string> identifiers = {
      {-1, ""}, {0, "SKIPPED"}, {1, "PENDING"}, {2, "SYNCED"}};
  ask(state, random, [&](const Sample& sample) {
    const std::string folder = sample.path.substr(0, sample.path.rfind('/') + 1);
    const auto& items = folders.find(folder)->second;
    const std::string* identifier = &identifiers.find(items.find(sample.path)->second)->second;
    benchmark::DoNotOptimize(identifier);
  });
}

BENCHMARK_CAPTURE(ours, hot, false)->Name("BadgeHitHot/ours");
BENCHMARK_CAPTURE(limit, hot, false)->Name("BadgeHitHot/limit");
BENCHMARK_CAPTURE(straightforward, hot, false)->Name("BadgeHitHot/straightforward");
BENCHMARK_CAPTURE(ours, random, true)->Name("BadgeHitRandom/ours");
BENCHMARK_CAPTURE(limit, random, true)->Name("BadgeHitRandom/limit");
BENCHMARK_CAPTURE(straightforward, random, true)->Name("BadgeHitRandom/straightforward");

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::Folders>(argc, argv);
}
