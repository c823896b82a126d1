# The checks of the macOS host that need no Mac; tests/macos describes each.
#   syntax and bundle: compiles the sources for macOS with clang, libc++ and Apple's Objective-C ABI; builds and reads the bundles
#   GNUstep: builds and runs the extension with GNUstep and stand-ins of the other frameworks, also under sanitizers
set(VORNET_MACOS_CHECKS AUTO CACHE STRING
  "Check the macOS host: ON, OFF, SOURCES (without running it), or AUTO for what the installed tools allow")
set_property(CACHE VORNET_MACOS_CHECKS PROPERTY STRINGS AUTO ON SOURCES OFF)

find_program(VORNET_CLANGXX NAMES clang++-14 clang++-19 clang++)
# Debian 13 has the headers in the folder of the architecture.
find_path(VORNET_GNUSTEP_HEADERS AppKit/AppKit.h
  PATHS "/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}/GNUstep" /usr/include/GNUstep)
find_library(VORNET_GNUSTEP_GUI gnustep-gui)
find_package(Python3 COMPONENTS Interpreter)
find_program(VORNET_NINJA ninja)
include(VornetObjectiveC)
# libc++, the C++ library of clang and of macOS. Debian installs one version at a time, not always that of the clang.
file(GLOB libcxx /usr/lib/llvm-*/include/c++/v1)
find_path(VORNET_LIBCXX_HEADERS __config PATHS ${libcxx} NO_DEFAULT_PATH)

set(missing "")
foreach(tool IN ITEMS VORNET_CLANGXX:clang VORNET_GNUSTEP_HEADERS:libgnustep-gui-dev VORNET_OBJC_HEADERS:libobjc-dev
    VORNET_GNUSTEP_GUI:libgnustep-gui-dev VORNET_NINJA:ninja-build Python3_EXECUTABLE:python3)
  string(REPLACE ":" ";" tool "${tool}")
  list(GET tool 0 variable)
  list(GET tool 1 package)
  if(NOT ${variable})
    list(APPEND missing ${package})
  endif()
endforeach()
list(REMOVE_DUPLICATES missing)
string(REPLACE ";" ", " missing "${missing}")

if(NOT VORNET_MACOS_CHECKS)
  message(STATUS "Checks of the macOS host left out: VORNET_MACOS_CHECKS is ${VORNET_MACOS_CHECKS}")
  return()
endif()
if(missing)
  if(NOT VORNET_MACOS_CHECKS STREQUAL "AUTO")
    message(FATAL_ERROR "The checks of the macOS host need: ${missing}")
  endif()
  message(STATUS "Checks of the macOS host left out: they need ${missing}")
  return()
endif()
message(STATUS "Cross-compiling the macOS host left out: no programs for macOS are linked here")

# --- Syntax and bundle ----------------------------------------------------------------------------------------------
set(layout "${CMAKE_BINARY_DIR}/macos/layout")
set(folder "${CMAKE_SOURCE_DIR}/tests/macos")
add_test(NAME macos.NothingIsLeftOfAnEarlierBundle COMMAND "${CMAKE_COMMAND}" -E rm -rf "${layout}" "${layout}-xcode")
set(configure "${CMAKE_COMMAND}" -S "${CMAKE_SOURCE_DIR}" -G Ninja
  "-DCMAKE_TOOLCHAIN_FILE=${folder}/MacLayout.cmake" "-DVORNET_CLANGXX=${VORNET_CLANGXX}"
  "-DVORNET_GNUSTEP_HEADERS=${VORNET_GNUSTEP_HEADERS}" "-DVORNET_CODESIGN=${folder}/commands/codesign"
  "-DVORNET_LIBCXX_HEADERS=${VORNET_LIBCXX_HEADERS}" "-DVORNET_LIBRARY_ARCHITECTURE=${CMAKE_LIBRARY_ARCHITECTURE}"
  "-DCMAKE_PROJECT_VornetVI_INCLUDE=${folder}/BundleProperties.cmake")
add_test(NAME macos.BundleIsConfigured COMMAND ${configure} -B "${layout}")
add_test(NAME macos.BundleIsConfiguredAsForXcode COMMAND ${configure} -B "${layout}-xcode" -DVORNET_AS_XCODE=ON)
add_test(NAME macos.LibrariesFromElsewhereThanTheSDKAreRefused
  COMMAND ${configure} -B "${layout}-sdk" -DVORNET_MACOS_SDK=/no/sdk)
if(VORNET_LIBCXX_HEADERS)
  add_test(NAME macos.PortableSourcesPassWithLibcxx
    COMMAND sh -c "\"$0\" -C \"$1\" $(\"$0\" -C \"$1\" -t targets all | sed -n 's/^\\(.*\\.cpp\\.o\\): .*/\\1/p')"
            "${VORNET_NINJA}" "${layout}")
  set_tests_properties(macos.PortableSourcesPassWithLibcxx PROPERTIES FIXTURES_REQUIRED macos-configured TIMEOUT 600)
else()
  message(STATUS "Checking the portable sources with libc++ left out: no package with its headers is installed (libc++-dev)")
endif()
add_test(NAME macos.SourcesPassWithApplesObjectiveC COMMAND "${CMAKE_COMMAND}" --build "${layout}")
add_test(NAME macos.Bundle COMMAND "${Python3_EXECUTABLE}" -B "${folder}/bundle_test.py" "${CMAKE_SOURCE_DIR}" "${layout}")
add_test(NAME macos.Install COMMAND "${Python3_EXECUTABLE}" -B "${folder}/install_test.py" "${CMAKE_SOURCE_DIR}" "${layout}")
set_tests_properties(macos.NothingIsLeftOfAnEarlierBundle PROPERTIES FIXTURES_SETUP macos-empty TIMEOUT 120)
set_tests_properties(macos.BundleIsConfigured macos.BundleIsConfiguredAsForXcode PROPERTIES
  FIXTURES_REQUIRED macos-empty FIXTURES_SETUP macos-configured TIMEOUT 120)
set_tests_properties(macos.LibrariesFromElsewhereThanTheSDKAreRefused PROPERTIES
  TIMEOUT 120 PASS_REGULAR_EXPRESSION "libcurl[^ ]* is not of the SDK /no/sdk")
set_tests_properties(macos.SourcesPassWithApplesObjectiveC PROPERTIES
  FIXTURES_REQUIRED macos-configured FIXTURES_SETUP macos-layout DEPENDS macos.PortableSourcesPassWithLibcxx TIMEOUT 600)
set_tests_properties(macos.Bundle macos.Install PROPERTIES FIXTURES_REQUIRED macos-layout TIMEOUT 120)

# --- GNUstep --------------------------------------------------------------------------------------------------------
if(VORNET_MACOS_CHECKS STREQUAL "SOURCES")
  message(STATUS "Running the macOS host under GNUstep left out: VORNET_MACOS_CHECKS is SOURCES")
  return()
endif()
if(VORNET_SANITIZE)
  message(STATUS "Running the macOS host under GNUstep left out: builds without sanitizers do it, with and without them")
  return()
endif()
include(ExternalProject)

# vornet_gnustep_build(NAME PREFIX ARGUMENTS…): builds the extension and its tests in macos/NAME with every build, and adds
# the tests to those of this build, with names that begin with PREFIX.
function(vornet_gnustep_build name prefix)
  set(binary "${CMAKE_BINARY_DIR}/macos/${name}")
  ExternalProject_Add(vornet_macos_${name}
    SOURCE_DIR "${CMAKE_SOURCE_DIR}"
    BINARY_DIR "${binary}"
    PREFIX "${binary}-steps"
    CMAKE_GENERATOR Ninja
    CMAKE_ARGS -DVORNET_SYSTEM=macos -DCMAKE_CXX_COMPILER=${VORNET_CLANGXX} -DCMAKE_OBJCXX_COMPILER=${VORNET_CLANGXX}
      -DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}
      -DCMAKE_OBJCXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}
      -DVORNET_WERROR=${VORNET_WERROR} -DVORNET_TEST_PREFIX=${prefix} ${ARGN}
    INSTALL_COMMAND ""
    BUILD_ALWAYS TRUE
    USES_TERMINAL_BUILD TRUE)  # one at a time, and not beside this build's own work
  file(WRITE "${binary}-tests.cmake" "subdirs(\"${binary}/tests/macos\")\n")
  set_property(DIRECTORY "${CMAKE_SOURCE_DIR}" APPEND PROPERTY TEST_INCLUDE_FILES "${binary}-tests.cmake")
endfunction()
vornet_gnustep_build(gnustep macos. -DCMAKE_BUILD_TYPE=Release)
vornet_gnustep_build(gnustep-asan macos.asan. -DCMAKE_BUILD_TYPE=Debug
  -DVORNET_MACOS_APPLICATION_GROUP=ABCDE12345.com.vornet.KelvaneSync
  "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g1" "-DCMAKE_OBJCXX_FLAGS_DEBUG=-O1 -g1" -DVORNET_SANITIZE=address,undefined)
