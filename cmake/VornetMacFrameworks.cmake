# vornet_apple_frameworks: Foundation, AppKit, FinderSync and Dispatch; where there is no Mac, their stand-ins.
enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_VISIBILITY_PRESET hidden)

add_library(vornet_apple_frameworks INTERFACE)
target_compile_options(vornet_apple_frameworks INTERFACE $<$<COMPILE_LANGUAGE:OBJCXX>:-fno-objc-arc>)
if(APPLE)
  target_link_libraries(vornet_apple_frameworks INTERFACE
    "-framework Foundation" "-framework AppKit" "-framework FinderSync")
else()
  add_subdirectory(tests/macos/standin)
endif()
