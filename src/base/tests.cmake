vornet_test(vornet_base_test SOURCES base/AppConst_test.cpp base/MenuEntries_test.cpp LIBRARIES vornet_core)
