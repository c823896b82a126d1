// What the real extension process holds and uses while nobody asks it anything, beside a service on the same bus that
// does nothing. The time that these take means nothing: what counts are their counters.
#include <chrono>
#include <thread>

#include "support/Items.hpp"
#include "support/ProcessFigures.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/RunningExtension.hpp"

namespace vornet::bench {
namespace {

constexpr std::chrono::seconds WATCHED{6};  // more than the interval between two passes

using Figure = double (*)(RunningExtension&);

void take(benchmark::State& state, Figure figure) {
  auto& extension = *fixture<RunningExtension>();
  double value = 0;
  for (auto _ : state) value = figure(extension);
  if (value <= 0) state.SkipWithError("no figure");
  state.counters["value"] = value;
}

double memoryStarted(RunningExtension& extension) {
  extension.restart();
  return residentMemory(extension.process());
}

double memoryObserving(RunningExtension& extension) {
  extension.restart();
  extension.observe(0);
  return residentMemory(extension.process());
}

double threads(RunningExtension& extension) {
  extension.restart();
  extension.observe(0);
  return static_cast<double>(threadCount(extension.process()));
}

double bareMemory(RunningExtension& extension) {
  return residentMemory(extension.bareProcess());
}

double bareThreads(RunningExtension& extension) {
  return static_cast<double>(threadCount(extension.bareProcess()));
}

/// Milliseconds of processor time a minute.
double used(pid_t process) {
  const double before = processorTime(process);
  std::this_thread::sleep_for(WATCHED);
  return (processorTime(process) - before) / std::chrono::duration<double>(WATCHED).count() * 60 * 1000;
}

double timeIdle(RunningExtension& extension) {
  extension.restart();
  return used(extension.process());
}

double timeObserving(RunningExtension& extension) {
  extension.restart();
  extension.observe(0);
  return used(extension.process());
}

#define IDLE_FIGURE(name, figure) BENCHMARK_CAPTURE(take, figure, &figure)->Name(name)->Iterations(1)
IDLE_FIGURE("IdleMemoryStarted/ours", memoryStarted);
IDLE_FIGURE("IdleMemoryStarted/limit", bareMemory);
IDLE_FIGURE("IdleMemoryObserving/ours", memoryObserving);
IDLE_FIGURE("IdleMemoryObserving/limit", bareMemory);
IDLE_FIGURE("IdleThreads/ours", threads);
IDLE_FIGURE("IdleThreads/limit", bareThreads);
IDLE_FIGURE("IdleTime/ours", timeIdle);
IDLE_FIGURE("IdleTimeObserving/ours", timeObserving);
#undef IDLE_FIGURE

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::RunningExtension>(argc, argv);
}
