# unit tests of the automation library
player_unit_test(AutomationCommandsTest
  SOURCES AutomationCommandsTest.cpp automationSupport.cpp persistenceSupport.cpp noDiskWait.cpp LINK automation)

player_unit_test(xmlTextTest SOURCES xmlTextTest.cpp LINK xmlText)

player_unit_test(TransactionSearchTest
  SOURCES TransactionSearchTest.cpp ${PROJECT_SOURCE_DIR}/src/TransactionSearch.cpp LINK xmlText)

# The server alone: socket, commands, player and as-played log are the test's own.
player_unit_test(AutomationAPITest
  SOURCES AutomationAPITest.cpp ${PROJECT_SOURCE_DIR}/src/AutomationAPI.cpp ${PROJECT_SOURCE_DIR}/src/TransactionSearch.cpp
  LINK xmlText)
