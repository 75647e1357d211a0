# unit tests of the players library
player_unit_test(AudioPlayerTest SOURCES AudioPlayerTest.cpp LINK players)
player_unit_test(AudioServiceTest SOURCES AudioServiceTest.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerStepsTest
  SOURCES FilePlayerStepsTest.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerTest
  SOURCES FilePlayerTest.cpp playersSupport.cpp persistenceSupport.cpp audioLibrary/alsaFake.cpp LINK players)
