# Toolchain that lays the bundles out as on a Mac without making programs: CMake takes the system for macOS, every
# Objective-C++ source is only checked, by clang with Apple's Objective-C ABI, and "linking" writes down what would be
# linked. What is left is real: property lists, resources, folders and the order of signing.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_CXX_COMPILER "${VORNET_CLANGXX}")
set(CMAKE_OBJCXX_COMPILER "${VORNET_CLANGXX}")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORNET_CLANGXX)
set(CMAKE_INSTALL_NAME_TOOL "${CMAKE_COMMAND}")  # asked for, not run
set(CMAKE_LIBRARY_ARCHITECTURE "${VORNET_LIBRARY_ARCHITECTURE}")
set(CMAKE_OSX_SYSROOT "" CACHE STRING "")
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "")
set(CMAKE_HAVE_LIBC_PTHREAD TRUE)

get_property(trying GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT trying)
  include("${CMAKE_CURRENT_LIST_DIR}/../../cmake/VornetObjectiveC.cmake")
  string(CONCAT check "<CMAKE_OBJCXX_COMPILER> <DEFINES> <INCLUDES> <FLAGS> -Werror -Wno-unused-command-line-argument"
    " -fsyntax-only -fobjc-runtime=macosx-11 -fobjc-exceptions"
    " -DGNUSTEP -DGNUSTEP_BASE_LIBRARY=1 -DGNU_GUI_LIBRARY=1 -DNO_GNUSTEP=1"
    " -isystem ${VORNET_GNUSTEP_HEADERS} -isystem ${VORNET_OBJC_HEADERS}"
    " -I ${CMAKE_CURRENT_LIST_DIR}/standin -include ${CMAKE_CURRENT_LIST_DIR}/standin/Additions.h <SOURCE>")
  set(empty "\"${CMAKE_COMMAND}\" -E touch")
  set(CMAKE_OBJCXX_COMPILE_OBJECT "${check}" "${empty} <OBJECT>")
  set(CMAKE_CXX_COMPILE_OBJECT "${empty} <OBJECT>")
  foreach(language CXX OBJCXX)
    set(CMAKE_${language}_LINK_EXECUTABLE
      "\"${CMAKE_COMMAND}\" -E echo <LINK_FLAGS> <LINK_LIBRARIES> > <TARGET>")
    set(CMAKE_${language}_CREATE_STATIC_LIBRARY "${empty} <TARGET>")
    set(CMAKE_${language}_ARCHIVE_CREATE "${empty} <TARGET>")
    set(CMAKE_${language}_ARCHIVE_FINISH "")
  endforeach()
endif()
