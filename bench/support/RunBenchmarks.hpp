#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>

namespace vornet::bench {

/// Runs the program's benchmarks as its arguments say, within `Fixture` (made first, given to them as
/// fixture<Fixture>). The exit status: 1 when the fixture could not be made.
template <class Fixture>
int runBenchmarks(int argc, char** argv);

/// The fixture of the program.
template <class Fixture>
Fixture*& fixture() {
  static Fixture* made = nullptr;
  return made;
}

template <class Fixture>
int runBenchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    Fixture made;
    fixture<Fixture>() = &made;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}

}  // namespace vornet::bench
