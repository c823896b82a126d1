vornet_test(vornet_rest_test PORT
  SOURCES rest/ListenerSwap_test.cpp rest/MenuActions_test.cpp rest/RESTClient_test.cpp rest/RESTPollingManager_test.cpp
  LIBRARIES vornet_core vornet_test_support)
