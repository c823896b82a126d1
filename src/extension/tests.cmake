vornet_test(vornet_shared_objects_test
  SOURCES extension/SharedObjects_test.cpp
  LIBRARIES vornet_core vornet_test_support)
vornet_test(vornet_extension_test PORT
  SOURCES extension/FinderSync_test.cpp
  LIBRARIES vornet_core vornet_test_support)
