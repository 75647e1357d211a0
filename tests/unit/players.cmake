# unit tests of the players library
player_unit_test(AudioPlayerTest SOURCES AudioPlayerTest.cpp LINK players)
player_unit_test(AudioServiceTest SOURCES AudioServiceTest.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerStepsTest
  SOURCES FilePlayerStepsTest.cpp graphStandIns.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerTest
  SOURCES FilePlayerTest.cpp playersSupport.cpp persistenceSupport.cpp audioLibrary/alsaFake.cpp LINK players)
player_unit_test(StreamPlayerTest
  SOURCES StreamPlayerTest.cpp graphStandIns.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
target_link_options(StreamPlayerTest PRIVATE -Wl,--wrap=_ZN17audioLibrarySpace11CAudioBlock4initEv)
