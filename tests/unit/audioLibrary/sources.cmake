# unit tests of the sources library
foreach(subject audioPlay toneGenerator)
  player_unit_test(${subject}Test SOURCES ${subject}Test.cpp LINK audioSources)
endforeach()
player_unit_test(wavFilePlayTest SOURCES wavFilePlayTest.cpp LINK audioSources)
