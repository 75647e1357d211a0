# unit tests of the persistence library
foreach(test sqlite3Wrapper AudioDatabaseSchema AudioDatabase PlaylistItem records)
  player_unit_test(${test}Test SOURCES ${test}Test.cpp persistenceSupport.cpp noDiskWait.cpp LINK persistence)
endforeach()

player_unit_test(AsPlayedLogTest
  SOURCES AsPlayedLogTest.cpp persistenceSupport.cpp noDiskWait.cpp LINK persistence)
# The clocks are set by the test, and the text log stays in the test's own directory.
stand_in_for(AsPlayedLogTest clock_gettime time fopen64)
