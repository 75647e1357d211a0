# unit tests of the persistence library
foreach(test sqlite3Wrapper AudioDatabaseSchema AudioDatabase PlaylistItem records)
  player_unit_test(${test}Test SOURCES ${test}Test.cpp persistenceSupport.cpp noDiskWait.cpp LINK persistence)
endforeach()

player_unit_test(AsPlayedLogTest
  SOURCES AsPlayedLogTest.cpp persistenceSupport.cpp noDiskWait.cpp LINK persistence)
# The clocks are set by the test, and the text log stays in the test's own directory.
target_link_options(AsPlayedLogTest PRIVATE -Wl,--wrap=clock_gettime -Wl,--wrap=time -Wl,--wrap=fopen64)
