# vornet_options: the compiler options of every target.
option(VORNET_WERROR "Treat warnings as errors" OFF)
set(VORNET_SANITIZE "" CACHE STRING "Sanitizers for -fsanitize=, for example address,undefined or thread")

add_library(vornet_options INTERFACE)
target_compile_options(vornet_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  # Paths in messages and in __FILE__ are relative to the source tree.
  "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
# GCC 12 reports overlapping copies when strings are concatenated (its bug 105651).
target_compile_options(vornet_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
# GCC 16 warns of reading empty std::optionals that nothing reads.
target_compile_options(vornet_options INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_GREATER_EQUAL:$<CXX_COMPILER_VERSION>,16>>:-Wno-maybe-uninitialized>)
if(VORNET_WERROR)
  target_compile_options(vornet_options INTERFACE -Werror)
endif()
if(VORNET_SANITIZE)
  target_compile_options(vornet_options INTERFACE "-fsanitize=${VORNET_SANITIZE}" -fno-sanitize-recover=all
    -fno-omit-frame-pointer
    # GCC 12 takes the instrumented <regex> for uninitialised (its bug 105562).
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  # The thread sanitizer knows no fences; Boost.Asio's are beside its mutexes, which it does know.
  target_compile_definitions(vornet_options INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
  target_link_options(vornet_options INTERFACE "-fsanitize=${VORNET_SANITIZE}")
endif()
if(VORNET_FUZZ)
  # Reports to libFuzzer which branches an input took.
  target_compile_options(vornet_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
