vornet_test(vornet_paths_test SOURCES paths/JSON_test.cpp paths/Paths_test.cpp
  LIBRARIES vornet_core vornet_test_support)
