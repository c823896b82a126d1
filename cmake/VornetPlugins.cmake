# Shared by the plug-ins of all file managers.

# vornet_wants(RESULT MANAGER FOUND PACKAGE): sets RESULT to whether the plug-in for MANAGER is built. The cache option
# VORNET_<MANAGER> decides: ON, OFF, or AUTO for what FOUND says, which is whether the development package PACKAGE is there.
function(vornet_wants result manager found package)
  string(TOUPPER "VORNET_${manager}" option)
  set(${option} AUTO CACHE STRING "Plug-in for ${manager}: ON, OFF, or AUTO where ${package} is installed")
  set_property(CACHE ${option} PROPERTY STRINGS AUTO ON OFF)
  set(${result} OFF PARENT_SCOPE)
  if(NOT ${option})
    message(STATUS "Plug-in for ${manager} left out: ${option} is ${${option}}")
  elseif(found)
    set(${result} ON PARENT_SCOPE)
  elseif("${${option}}" STREQUAL "AUTO")
    message(STATUS "Plug-in for ${manager} left out: it needs ${package}")
  else()
    message(FATAL_ERROR "The plug-in for ${manager} needs ${package}")
  endif()
endfunction()

# vornet_relative_folder(RESULT FOLDER PREFIX): FOLDER, where a file manager looks for plug-ins, as seen from PREFIX, the
# file manager's own. A plug-in is built in that folder below the build tree and installed to it below the install prefix.
function(vornet_relative_folder result folder prefix)
  cmake_path(RELATIVE_PATH folder BASE_DIRECTORY "${prefix}" OUTPUT_VARIABLE relative)
  if(NOT relative OR relative MATCHES "^\\.\\.")
    message(FATAL_ERROR "\"${folder}\" is not a folder below \"${prefix}\"")
  endif()
  set(${result} "${relative}" PARENT_SCOPE)
endfunction()

# vornet_add_plugin(TARGET FOLDER SOURCES…): a plug-in, the library TARGET, in FOLDER of the build tree and the install tree.
function(vornet_add_plugin target folder)
  add_library(${target} MODULE ${ARGN})
  set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/${folder}")
  target_link_libraries(${target} PRIVATE vornet_client vornet_options)
  # Its code stays when the file manager unloads it: GLib may still hold callbacks into it.
  target_link_options(${target} PRIVATE LINKER:-z,nodelete)
  # Clang leaves the sanitizers' functions to the program.
  if(NOT (VORNET_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang"))
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
  install(TARGETS ${target} LIBRARY DESTINATION "${folder}")
endfunction()
