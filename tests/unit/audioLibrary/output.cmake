# unit tests of the output library
player_unit_test(mixerCopyTest SOURCES mixerCopyTest.cpp LINK audioOutput)
player_unit_test(mixerBlockTest SOURCES mixerBlockTest.cpp allocationCounter.cpp LINK audioOutput)
# On a card of the test's own: nothing of libasound is linked.
player_unit_test(alsaSourceTest SOURCES alsaSourceTest.cpp alsaFake.cpp LINK alsaPlayback)
player_unit_test(sampleRateConverterTest SOURCES sampleRateConverterTest.cpp asrcFake.cpp LINK audioOutput)
player_unit_test(rateLoopTest SOURCES rateLoopTest.cpp allocationCounter.cpp LINK audioOutput audioSources)
