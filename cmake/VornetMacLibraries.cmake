# CURL::libcurl and SQLite::SQLite3 of the SDK, which every Mac has, and Boost::json compiled from Boost's headers: Homebrew's
# archive is for one architecture, and the sandbox does not let the extension load Homebrew's libraries.
set(CURL_NO_CURL_CMAKE ON)  # it would find another curl
find_package(CURL REQUIRED)
find_package(SQLite3 REQUIRED)

if(APPLE)
  set(VORNET_MACOS_SDK "${CMAKE_OSX_SYSROOT}" CACHE PATH "The SDK that curl and SQLite come from")
  if(NOT VORNET_MACOS_SDK)
    execute_process(COMMAND xcrun --sdk macosx --show-sdk-path OUTPUT_VARIABLE VORNET_MACOS_SDK
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  endif()
  foreach(library IN ITEMS ${CURL_LIBRARY} ${CURL_LIBRARY_RELEASE} ${SQLite3_LIBRARY})
    cmake_path(IS_PREFIX VORNET_MACOS_SDK "${library}" NORMALIZE of_sdk)
    if(NOT of_sdk)
      message(FATAL_ERROR "${library} is not of the SDK ${VORNET_MACOS_SDK}, so other Macs may lack it: "
        "set CURL_LIBRARY and SQLite3_LIBRARY to those in its usr/lib")
    endif()
  endforeach()
endif()

find_package(Boost 1.81 REQUIRED)
add_library(vornet_boost_json STATIC macos/BoostJSON.cpp)
target_link_libraries(vornet_boost_json PUBLIC Boost::headers)
add_library(Boost::json ALIAS vornet_boost_json)
