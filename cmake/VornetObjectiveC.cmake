# VORNET_OBJC_HEADERS: the folder that holds objc/objc.h, which comes with the GNU compiler; clang does not look there.
find_program(VORNET_GCC gcc)
if(VORNET_GCC)
  execute_process(COMMAND "${VORNET_GCC}" -print-file-name=include OUTPUT_VARIABLE gcc_headers
    OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
find_path(VORNET_OBJC_HEADERS objc/objc.h PATHS "${gcc_headers}")
