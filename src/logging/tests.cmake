vornet_test(vornet_logging_test
  SOURCES
    logging/DateFormatterCache_test.cpp
    logging/LogDestinations_test.cpp
    logging/LogLevel_test.cpp
    logging/Logging_test.cpp
    logging/PrintedForm_test.cpp
    logging/XCGLogger_test.cpp
  LIBRARIES vornet_core vornet_test_support)
