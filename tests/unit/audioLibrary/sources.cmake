# unit tests of the sources library
foreach(subject audioPlay toneGenerator)
  player_unit_test(${subject}Test SOURCES ${subject}Test.cpp LINK audioSources)
endforeach()
player_unit_test(wavFilePlayTest SOURCES wavFilePlayTest.cpp LINK audioSources)

# Encodes its material itself, and puts itself between the block and the decoder and the storage.
pkg_check_modules(LAME REQUIRED IMPORTED_TARGET lame)
player_unit_test(mp3FilePlayTest SOURCES mp3FilePlayTest.cpp mp3Files.cpp LINK audioSources PkgConfig::LAME)
stand_in_for(mp3FilePlayTest
  mpg123_init mpg123_new mpg123_delete mpg123_param2 mpg123_format_all mpg123_open_feed mpg123_decode
  mpg123_getformat read)

# On a card of the test's own: nothing of libasound is linked.
player_unit_test(livewireStreamPlayTest SOURCES livewireStreamPlayTest.cpp alsaFake.cpp LINK alsaCapture)
# Through the real libasound, on the virtual capture card "hw:Axia,0" and a clock of the test's own.
player_unit_test(livewireCardTest SOURCES livewireCardTest.cpp LINK alsaCapture audioOutput virtualCardCore)
target_compile_definitions(livewireCardTest PRIVATE
  VIRTUAL_CARD_CONFIGURATION="${PROJECT_BINARY_DIR}/tools/virtualCard/virtualCard.conf")
add_dependencies(livewireCardTest asound_module_pcm_vcard)

# Sockets are the test's own: nothing is asked of a network.
player_unit_test(shoutcastPlaylistTest SOURCES shoutcastPlaylistTest.cpp LINK streamSources)
player_unit_test(mp3ShoutcastPlayTest SOURCES mp3ShoutcastPlayTest.cpp mp3Files.cpp LINK streamSources PkgConfig::LAME)
stand_in_for(mp3ShoutcastPlayTest
  mpg123_init mpg123_new mpg123_delete mpg123_param2 mpg123_format_all mpg123_open_feed mpg123_decode
  mpg123_getformat)
player_unit_test(mp3ShoutcastDeliveryTest
  SOURCES mp3ShoutcastDeliveryTest.cpp mp3Files.cpp allocationCounter.cpp LINK streamSources PkgConfig::LAME)
stand_in_for(mp3ShoutcastDeliveryTest mpg123_decode)
