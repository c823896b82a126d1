# Kelvane.app with the extension in Contents/PlugIns/VornetVIExt.appex, both signed. Included by macos.
add_executable(Kelvane MACOSX_BUNDLE Application.mm)
target_link_libraries(Kelvane PRIVATE vornet_apple_frameworks vornet_options)
set_target_properties(Kelvane PROPERTIES
  MACOSX_BUNDLE_INFO_PLIST "${bundle}/Kelvane-Info.plist"
  RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}"
  XCODE_ATTRIBUTE_PRODUCT_BUNDLE_IDENTIFIER "${VORNET_APPLICATION_IDENTIFIER}"
  XCODE_ATTRIBUTE_CODE_SIGN_IDENTITY "${VORNET_MACOS_SIGNING_IDENTITY}")

add_executable(VornetVIExt MACOSX_BUNDLE ${images})
set_source_files_properties(${images} PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
target_link_libraries(VornetVIExt PRIVATE vornet_macos_extension vornet_options)
target_compile_options(VornetVIExt PRIVATE -fapplication-extension)
target_link_options(VornetVIExt PRIVATE -fapplication-extension LINKER:-e,_NSExtensionMain)
set_target_properties(VornetVIExt PROPERTIES
  LINKER_LANGUAGE OBJCXX
  BUNDLE_EXTENSION appex
  MACOSX_BUNDLE_INFO_PLIST "${bundle}/VornetVIExt-Info.plist"
  XCODE_PRODUCT_TYPE com.apple.product-type.app-extension
  XCODE_EXPLICIT_FILE_TYPE wrapper.app-extension
  XCODE_ATTRIBUTE_APPLICATION_EXTENSION_API_ONLY YES
  XCODE_ATTRIBUTE_SKIP_INSTALL YES
  XCODE_ATTRIBUTE_PRODUCT_BUNDLE_IDENTIFIER "${VORNET_EXTENSION_IDENTIFIER}"
  XCODE_ATTRIBUTE_CODE_SIGN_ENTITLEMENTS "${bundle}/VornetVIExt.entitlements"
  XCODE_ATTRIBUTE_CODE_SIGN_IDENTITY "${VORNET_MACOS_SIGNING_IDENTITY}")
if(CMAKE_GENERATOR STREQUAL "Xcode")
  add_dependencies(Kelvane VornetVIExt)  # embedding it does not build it
  set_target_properties(Kelvane PROPERTIES
    XCODE_EMBED_APP_EXTENSIONS VornetVIExt
    XCODE_EMBED_APP_EXTENSIONS_CODE_SIGN_ON_COPY NO)  # signed with its entitlements already
  return()
endif()

# Other generators: the extension is built inside the application, which is signed after it.
set(application "${CMAKE_BINARY_DIR}/Kelvane.app")
set(extension "${application}/Contents/PlugIns/VornetVIExt.appex")
set_target_properties(VornetVIExt PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${application}/Contents/PlugIns")
find_program(VORNET_CODESIGN codesign REQUIRED)
add_custom_command(
  OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/signed"
  COMMAND "${VORNET_CODESIGN}" --force --sign "${VORNET_MACOS_SIGNING_IDENTITY}"
          --entitlements "${bundle}/VornetVIExt.entitlements" "${extension}"
  COMMAND "${VORNET_CODESIGN}" --force --sign "${VORNET_MACOS_SIGNING_IDENTITY}" "${application}"
  COMMAND "${CMAKE_COMMAND}" -E touch "${CMAKE_CURRENT_BINARY_DIR}/signed"
  DEPENDS Kelvane VornetVIExt ${images} "${bundle}/VornetVIExt.entitlements"
          "${bundle}/VornetVIExt-Info.plist" "${bundle}/Kelvane-Info.plist"
  COMMENT "Signing Kelvane.app"
  VERBATIM)
add_custom_target(vornet_macos_signed ALL DEPENDS "${CMAKE_CURRENT_BINARY_DIR}/signed")
