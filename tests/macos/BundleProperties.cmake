# Included by the project at its beginning; at its end writes down the properties of the two bundles for the generator.
# With VORNET_AS_XCODE the project takes the generator for Xcode, which runs on a Mac only.
if(VORNET_AS_XCODE)
  set(CMAKE_GENERATOR Xcode)
endif()

function(vornet_write_bundle_properties)
  set(lines "")
  foreach(target IN ITEMS Kelvane VornetVIExt)
    foreach(property IN ITEMS MANUALLY_ADDED_DEPENDENCIES COMPILE_OPTIONS LINK_OPTIONS BUNDLE_EXTENSION XCODE_PRODUCT_TYPE
        XCODE_EXPLICIT_FILE_TYPE XCODE_EMBED_APP_EXTENSIONS XCODE_EMBED_APP_EXTENSIONS_CODE_SIGN_ON_COPY
        XCODE_ATTRIBUTE_APPLICATION_EXTENSION_API_ONLY XCODE_ATTRIBUTE_SKIP_INSTALL XCODE_ATTRIBUTE_PRODUCT_BUNDLE_IDENTIFIER
        XCODE_ATTRIBUTE_CODE_SIGN_ENTITLEMENTS XCODE_ATTRIBUTE_CODE_SIGN_IDENTITY)
      get_target_property(value ${target} ${property})
      if(NOT value STREQUAL "value-NOTFOUND")
        string(APPEND lines "${target} ${property} ${value}\n")
      endif()
    endforeach()
  endforeach()
  file(WRITE "${CMAKE_BINARY_DIR}/bundle-properties" "${lines}")
endfunction()
cmake_language(DEFER CALL vornet_write_bundle_properties)
