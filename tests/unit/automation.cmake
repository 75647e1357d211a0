# unit tests of the automation library
player_unit_test(AutomationCommandsTest
  SOURCES AutomationCommandsTest.cpp automationSupport.cpp persistenceSupport.cpp noDiskWait.cpp LINK automation)
