vornet_test(vornet_cache_test SOURCES cache/DirCache_test.cpp cache/StatusTable_test.cpp
  LIBRARIES vornet_core vornet_test_support)
