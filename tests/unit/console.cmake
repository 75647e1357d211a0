# unit tests of the debug console
player_unit_test(consoleTest SOURCES console/consoleTest.cpp ${PROJECT_SOURCE_DIR}/src/console/console.cpp LINK daemonShell)
stand_in_for(consoleTest clock_gettime)

# The player is the test's own, and so is the card.
player_unit_test(consoleCommandsTest
  SOURCES console/consoleCommandsTest.cpp audioLibrary/alsaFake.cpp ${PROJECT_SOURCE_DIR}/src/console/consoleCommands.cpp
  LINK audioOutput audioSources daemonShell)
