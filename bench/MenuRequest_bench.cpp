// The body of the request that asks for the menu of 15 items.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/json.hpp>
#include <sstream>

#include "paths/JSON.hpp"
#include "support/Items.hpp"

namespace vornet::bench {
namespace {

std::vector<std::string> selection() {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < 15; ++i) paths.push_back(itemOf(folderKeyOf(0), i));
  return paths;
}

void ours(benchmark::State& state) {
  const auto paths = selection();
  for (auto _ : state) {
    boost::json::array array;
    array.reserve(paths.size());
    for (const auto& path : paths) array.emplace_back(path);
    benchmark::DoNotOptimize(toJSON({{"paths", std::move(array)}}));
  }
}

/// The texts put one after another, once it is known that none needs an escape.
void limit(benchmark::State& state) {
  const auto paths = selection();
  for (auto _ : state) {
    std::string text = "{\"paths\":[";
    text.reserve(2048);
    for (const auto& path : paths) {
      const bool plain = std::none_of(path.begin(), path.end(), [](char c) {
        return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
      });
      if (plain) text.append("\"").append(path).append("\",");
    }
    text.back() = ']';
    text += '}';
    benchmark::DoNotOptimize(text);
  }
}

/// A document that is built member by member and printed to a stream.
void straightforward(benchmark::State& state) {
  const auto paths = selection();
  for (auto _ : state) {
    boost::json::object object;
    boost::json::array& array = object["paths"].emplace_array();
    for (const auto& path : paths) array.push_back(boost::json::string(path));
    std::ostringstream stream;
    stream << object;
    benchmark::DoNotOptimize(stream.str());
  }
}

BENCHMARK(ours)->Name("MenuRequest/ours");
BENCHMARK(limit)->Name("MenuRequest/limit");
BENCHMARK(straightforward)->Name("MenuRequest/straightforward");

}  // namespace
}  // namespace vornet::bench

BENCHMARK_MAIN();
