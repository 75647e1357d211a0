# unit tests of the output library
player_unit_test(mixerCopyTest SOURCES mixerCopyTest.cpp LINK audioOutput)
player_unit_test(mixerBlockTest SOURCES mixerBlockTest.cpp allocationCounter.cpp LINK audioOutput)
