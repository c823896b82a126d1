// The badges of ten thousand items, requested from the real extension process over a message bus.
#include "support/Items.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/RunningExtension.hpp"

namespace vornet::bench {
namespace {

struct ObservedFolder {
  RunningExtension extension;
  std::vector<std::string> urls = extension.urls(0);
  ObservedFolder() { extension.observe(0); }
};

using Request = std::size_t (RunningExtension::*)(const std::vector<std::string>& urls);

/// Asks for all items, `batch` in a call.
void ask(benchmark::State& state, Request request, std::size_t batch) {
  auto& [extension, urls] = *fixture<ObservedFolder>();
  std::vector<std::vector<std::string>> batches;
  for (std::size_t from = 0; from < urls.size(); from += batch) {
    batches.emplace_back(urls.begin() + static_cast<std::ptrdiff_t>(from),
                         urls.begin() + static_cast<std::ptrdiff_t>(from + batch));
  }
  for (auto _ : state) {
    std::size_t synced = 0;
    for (const auto& part : batches) synced += (extension.*request)(part);
    if (synced != ENTRIES) state.SkipWithError("not all badges came");
  }
}

constexpr Request OURS = &RunningExtension::requestBadges;
constexpr Request ECHO_SERVICE = &RunningExtension::echo;

BENCHMARK_CAPTURE(ask, ours500, OURS, 500)->Name("BusBadges500/ours")->UseRealTime();
BENCHMARK_CAPTURE(ask, limit500, ECHO_SERVICE, 500)->Name("BusBadges500/limit")->UseRealTime();
BENCHMARK_CAPTURE(ask, ours10000, OURS, ENTRIES)->Name("BusBadges10000/ours")->UseRealTime();
BENCHMARK_CAPTURE(ask, limit10000, ECHO_SERVICE, ENTRIES)->Name("BusBadges10000/limit")->UseRealTime();
// As a plug-in does that asks for each item when it is drawn.
BENCHMARK_CAPTURE(ask, straightforward, OURS, 1)->Name("BusBadges500/straightforward")->UseRealTime();

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::ObservedFolder>(argc, argv);
}
