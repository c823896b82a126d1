# vornet_precompile(TARGET): what most tests include is compiled once for all programs that are given here. A test that lacks an
# include compiles all the same; the preset "debug" does without. Programs alone: optimised, GCC 12 warns of what is precompiled.
# Clang takes no precompiled headers of a target with other definitions, and ccache would keep no test.
set(precompile OFF)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(precompile ON)
endif()
option(VORNET_PRECOMPILE "Precompile what most tests include" ${precompile})

function(vornet_precompile target)
  if(NOT VORNET_PRECOMPILE)
    return()
  endif()
  if(NOT TARGET vornet_precompiled)
    file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/precompiled.cpp" CONTENT "int main() {}\n")
    add_executable(vornet_precompiled EXCLUDE_FROM_ALL "${CMAKE_BINARY_DIR}/precompiled.cpp")
    target_link_libraries(vornet_precompiled PRIVATE GTest::gmock Boost::json PkgConfig::GIO vornet_options)
    target_compile_options(vornet_precompiled PRIVATE -O0 -pthread)  # as tests are
    target_precompile_headers(vornet_precompiled PRIVATE <algorithm> <atomic> <chrono> <condition_variable> <filesystem> <fstream>
      <functional> <future> <map> <memory> <mutex> <optional> <set> <sstream> <string> <string_view> <thread> <utility> <vector>
      <boost/json.hpp> <gio/gio.h> <gmock/gmock.h> <gtest/gtest.h>)
  endif()
  # What the headers ask about must be defined alike.
  target_compile_options(${target} PRIVATE -pthread)
  target_link_libraries(${target} PRIVATE Boost::json)
  target_precompile_headers(${target} REUSE_FROM vornet_precompiled)
endfunction()
