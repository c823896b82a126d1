vornet_test(vornet_db_test
  SOURCES db/ChildStatuses_test.cpp db/ConfigDB_test.cpp db/Queries_test.cpp db/Statement_test.cpp db/SyncDB_test.cpp
  LIBRARIES vornet_core vornet_test_support SQLite::SQLite3)
# Its definitions of some of SQLite's functions come before the library's.
vornet_test(vornet_db_calls_test SOURCES db/SQLiteCalls_test.cpp
  LIBRARIES vornet_core vornet_test_support SQLite::SQLite3 ${CMAKE_DL_LIBS})
