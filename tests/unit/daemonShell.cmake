# unit tests of the daemonShell library, the audio manager and the heartbeat
player_unit_test(ByteArrayTest SOURCES ByteArrayTest.cpp LINK daemonShell)

player_unit_test(globalsTest SOURCES globalsTest.cpp LINK daemonShell)
# The test sets the time and refuses threads.
target_link_options(globalsTest PRIVATE -Wl,--wrap=time -Wl,--wrap=localtime_r -Wl,--wrap=pthread_create)
