#pragma once

#include <cstdio>
#include <cstdlib>

namespace vornet::fuzz {

/// Ends the process, which libFuzzer takes for a finding, unless `holds`. `what` says what should hold.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "Does not hold: %s\n", what);
  std::abort();
}

}  // namespace vornet::fuzz
