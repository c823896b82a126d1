find_package(ICU REQUIRED COMPONENTS uc i18n)
vornet_test(vornet_platform_test
  SOURCES
    platform/FileURL_test.cpp
    platform/PropertyListScan_test.cpp
    platform/linux/Bundle_test.cpp
    platform/linux/Dates_test.cpp
    platform/linux/Dispatch_test.cpp
    platform/linux/Files_test.cpp
    platform/linux/FinderSync_test.cpp
    platform/linux/GroupContainer_test.cpp
    platform/linux/Images_test.cpp
    platform/linux/Loopback_test.cpp
    platform/linux/Process_test.cpp
    platform/linux/PropertyList_test.cpp
    platform/linux/Text_test.cpp
  LIBRARIES vornet_core vornet_test_support PkgConfig::PLIST ICU::i18n ICU::uc)
