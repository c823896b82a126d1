# vornet_dbus: the interface com.vornet.FinderSync1 as C code, generated from its one XML description, and its names and
# limits, included as "dbus/Interface.hpp".
find_package(PkgConfig REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-unix-2.0)
find_program(GDBUS_CODEGEN gdbus-codegen REQUIRED)

set(vornet_dbus_xml "${CMAKE_SOURCE_DIR}/dbus/com.vornet.FinderSync1.xml")
set(vornet_dbus_dir "${CMAKE_BINARY_DIR}/generated/dbus")
file(MAKE_DIRECTORY "${vornet_dbus_dir}")
add_custom_command(
  OUTPUT "${vornet_dbus_dir}/FinderSync1.h" "${vornet_dbus_dir}/FinderSync1.c"
  COMMAND ${GDBUS_CODEGEN} --c-namespace Vornet --interface-prefix com.vornet. --generate-c-code FinderSync1
          --output-directory "${vornet_dbus_dir}" "${vornet_dbus_xml}"
  DEPENDS "${vornet_dbus_xml}"
  VERBATIM)
enable_language(C)
add_library(vornet_dbus STATIC "${vornet_dbus_dir}/FinderSync1.c" "${vornet_dbus_dir}/FinderSync1.h")
target_include_directories(vornet_dbus SYSTEM PUBLIC "${vornet_dbus_dir}")
target_include_directories(vornet_dbus PUBLIC "${CMAKE_SOURCE_DIR}")
target_link_libraries(vornet_dbus PUBLIC PkgConfig::GIO)
if(VORNET_SANITIZE)
  target_compile_options(vornet_dbus PRIVATE "-fsanitize=${VORNET_SANITIZE}")
endif()
