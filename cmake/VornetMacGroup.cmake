# VORNET_MACOS_APPLICATION_GROUP: the group of the sync application, for the entitlements.
set(VORNET_MACOS_APPLICATION_GROUP com.vornet.KelvaneSync CACHE STRING
  "Application group in the entitlements; for macOS 15 it should begin with the signing team's identifier or with group.")
if(NOT VORNET_MACOS_APPLICATION_GROUP MATCHES "^[A-Za-z0-9-]+([.][A-Za-z0-9-]+)+$")
  message(FATAL_ERROR "VORNET_MACOS_APPLICATION_GROUP is \"${VORNET_MACOS_APPLICATION_GROUP}\", which is not a group's name: use "
    "letters, digits and hyphens with dots between them, such as ABCDE12345.com.vornet.KelvaneSync")
endif()
if(NOT VORNET_MACOS_APPLICATION_GROUP MATCHES "^(group|[A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9])[.]")
  message(STATUS "The application group ${VORNET_MACOS_APPLICATION_GROUP} begins neither with a team's identifier nor with "
    "group.: from macOS 15 on the system asks the user whether the extension may use it, or refuses (docs/macos.md)")
endif()
