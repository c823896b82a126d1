// Memory, threads and processor time of the real extension process while nobody calls it, beside a service on the same
// bus that does nothing. The counters have the figures; the times of these benchmarks mean nothing.
#include <chrono>
#include <thread>

#include "support/Items.hpp"
#include "support/ProcessFigures.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/RunningExtension.hpp"

namespace vornet::bench {
namespace {

constexpr std::chrono::seconds WATCHED{15};  // three passes and five looks at the preferences
constexpr std::chrono::seconds RESTED{2};    // after which threads that calls started have ended

/// Memory in MiB, threads, or milliseconds of processor time a minute.
using Figure = double (*)(pid_t);

enum class Process { started, observing, bare };

void take(benchmark::State& state, Process process, Figure figure) {
  auto& extension = *fixture<RunningExtension>();
  double value = 0;
  for (auto _ : state) {
    if (process != Process::bare) extension.restart();
    if (process == Process::observing) extension.observe(0);
    value = figure(process == Process::bare ? extension.bareProcess() : extension.process());
  }
  if (value <= 0) state.SkipWithError("no figure");
  state.counters["value"] = value;
}

double threads(pid_t process) {
  std::this_thread::sleep_for(RESTED);
  return static_cast<double>(threadCount(process));
}

double timeAMinute(pid_t process) {
  std::this_thread::sleep_for(RESTED);
  const double before = processorTime(process);
  std::this_thread::sleep_for(WATCHED);
  return (processorTime(process) - before) / std::chrono::duration<double>(WATCHED).count() * 60 * 1000;
}

#define IDLE_FIGURE(name, process, figure) \
  BENCHMARK_CAPTURE(take, name, Process::process, &figure)->Name(name)->Iterations(1)
IDLE_FIGURE("IdleMemoryStarted/ours", started, residentMemory);
IDLE_FIGURE("IdleMemoryStarted/limit", bare, residentMemory);
IDLE_FIGURE("IdleMemoryObserving/ours", observing, residentMemory);
IDLE_FIGURE("IdleMemoryObserving/limit", bare, residentMemory);
IDLE_FIGURE("IdleThreads/ours", observing, threads);
IDLE_FIGURE("IdleThreads/limit", bare, threads);
IDLE_FIGURE("IdleTime/ours", started, timeAMinute);
IDLE_FIGURE("IdleTimeObserving/ours", observing, timeAMinute);
#undef IDLE_FIGURE

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::RunningExtension>(argc, argv);
}
