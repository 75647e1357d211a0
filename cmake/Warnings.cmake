# One interface target carries the flags of all our own code.
add_library(playerFlags INTERFACE)
target_compile_options(playerFlags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow
  # log lines carry the file's name from src/ down, not the builder's path; the last match wins
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/src/=)
# On a machine of 32 bits too: files above 2 GB, and clocks and dates after January 2038.
target_compile_definitions(playerFlags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_link_libraries(playerFlags INTERFACE Threads::Threads)
if(AUDIOPLAYER_SANITIZE)
  target_compile_options(playerFlags INTERFACE -fsanitize=${AUDIOPLAYER_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  target_link_options(playerFlags INTERFACE -fsanitize=${AUDIOPLAYER_SANITIZE})
endif()

# One library for each subsystem: player_library(name SOURCES ... LINK ...)
function(player_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC playerFlags ${ARG_LINK})
endfunction()
