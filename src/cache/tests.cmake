vornet_test(vornet_cache_test
  SOURCES cache/DirNode_test.cpp cache/LRUCache_test.cpp cache/LRUCacheModel_test.cpp cache/LRUCacheThreads_test.cpp
          cache/FolderStatusTable_test.cpp cache/StatusTable_test.cpp
  LIBRARIES vornet_core vornet_test_support)
