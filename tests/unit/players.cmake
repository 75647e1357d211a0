# unit tests of the players library
player_unit_test(AudioPlayerTest SOURCES AudioPlayerTest.cpp LINK players)
player_unit_test(AudioServiceTest SOURCES AudioServiceTest.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerStepsTest
  SOURCES FilePlayerStepsTest.cpp graphStandIns.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
player_unit_test(FilePlayerTest
  SOURCES FilePlayerTest.cpp playersSupport.cpp persistenceSupport.cpp audioLibrary/alsaFake.cpp LINK players)
player_unit_test(StreamPlayerTest
  SOURCES StreamPlayerTest.cpp graphStandIns.cpp playersSupport.cpp persistenceSupport.cpp LINK players)
stand_in_for(StreamPlayerTest _ZN17audioLibrarySpace11CAudioBlock4initEv)

# The whole graph, on a card and a network of the test's own.
pkg_check_modules(LAME REQUIRED IMPORTED_TARGET lame)
player_unit_test(StreamPlayerGraphTest
  SOURCES StreamPlayerGraphTest.cpp playersSupport.cpp persistenceSupport.cpp audioLibrary/alsaFake.cpp
          audioLibrary/mp3Files.cpp
  LINK players PkgConfig::LAME)
stand_in_for(StreamPlayerGraphTest
  _Z11osaSockOpenP10sockObject _Z12osaSockCloseP10sockObject _Z14osaSockConnectP10sockObject
  _Z12osaSockWriteP10sockObjectPcj _Z11osaSockReadP10sockObjectPcj)
