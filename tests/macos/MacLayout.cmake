# Toolchain that lays the bundles out as on a Mac without making programs: CMake takes the system for macOS, every source is
# only checked, with the headers of clang's own C++ library and, if Objective-C++, with Apple's Objective-C ABI, and "linking"
# writes down what would be linked. What is left is real: property lists, resources, folders and the order of signing.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_CXX_COMPILER "${VORNET_CLANGXX}")
set(CMAKE_OBJCXX_COMPILER "${VORNET_CLANGXX}")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORNET_CLANGXX)
set(CMAKE_INSTALL_NAME_TOOL "${CMAKE_COMMAND}")  # asked for, not run
set(CMAKE_LIBRARY_ARCHITECTURE "${VORNET_LIBRARY_ARCHITECTURE}")
set(CMAKE_OSX_SYSROOT "" CACHE STRING "")
set(VORNET_MACOS_SDK / CACHE PATH "")
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "")
set(CMAKE_HAVE_LIBC_PTHREAD TRUE)

get_property(trying GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT trying)
  include("${CMAKE_CURRENT_LIST_DIR}/../../cmake/VornetObjectiveC.cmake")
  string(CONCAT check " <DEFINES> <INCLUDES> <FLAGS> -Werror -Wno-unused-command-line-argument -fsyntax-only"
    " -I ${CMAKE_CURRENT_LIST_DIR}/standin <SOURCE>")
  if(VORNET_LIBCXX_HEADERS)
    string(APPEND check " -nostdinc++ -isystem ${VORNET_LIBCXX_HEADERS}")
  endif()
  string(CONCAT objective_c " -fobjc-runtime=macosx-11 -fobjc-exceptions"
    " -DGNUSTEP -DGNUSTEP_BASE_LIBRARY=1 -DGNU_GUI_LIBRARY=1 -DNO_GNUSTEP=1"
    " -isystem ${VORNET_GNUSTEP_HEADERS} -idirafter ${VORNET_OBJC_HEADERS}"
    " -include ${CMAKE_CURRENT_LIST_DIR}/standin/Additions.h")
  set(empty "\"${CMAKE_COMMAND}\" -E touch")
  set(CMAKE_OBJCXX_COMPILE_OBJECT "<CMAKE_OBJCXX_COMPILER>${objective_c}${check}" "${empty} <OBJECT>")
  set(CMAKE_CXX_COMPILE_OBJECT "<CMAKE_CXX_COMPILER>${check}" "${empty} <OBJECT>")
  foreach(language CXX OBJCXX)
    set(CMAKE_${language}_LINK_EXECUTABLE
      "\"${CMAKE_COMMAND}\" -E echo <LINK_FLAGS> <LINK_LIBRARIES> > <TARGET>")
    set(CMAKE_${language}_CREATE_STATIC_LIBRARY "${empty} <TARGET>")
    set(CMAKE_${language}_ARCHIVE_CREATE "${empty} <TARGET>")
    set(CMAKE_${language}_ARCHIVE_FINISH "")
  endforeach()
endif()
