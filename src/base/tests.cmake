vornet_test(vornet_base_test SOURCES base/AppConst_test.cpp LIBRARIES vornet_core)
