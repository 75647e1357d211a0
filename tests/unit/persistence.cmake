# unit tests of the persistence library
foreach(test sqlite3Wrapper AudioDatabaseSchema AudioDatabase PlaylistItem records)
  player_unit_test(${test}Test SOURCES ${test}Test.cpp persistenceSupport.cpp noDiskWait.cpp LINK persistence)
endforeach()
