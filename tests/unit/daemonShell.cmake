# unit tests of the daemonShell library, the audio manager and the heartbeat
player_unit_test(ByteArrayTest SOURCES ByteArrayTest.cpp LINK daemonShell)

player_unit_test(globalsTest SOURCES globalsTest.cpp LINK daemonShell)
# The test sets the time and refuses threads.
target_link_options(globalsTest PRIVATE -Wl,--wrap=time -Wl,--wrap=localtime_r -Wl,--wrap=pthread_create)

# The threads themselves, with stand-ins for what they call: the system, and the parts that the loop services.
player_unit_test(AudioManagerTest
  SOURCES AudioManagerTest.cpp ${PROJECT_SOURCE_DIR}/src/AudioManager.cpp LINK daemonShell)
target_link_options(AudioManagerTest PRIVATE
  -Wl,--wrap=socket -Wl,--wrap=bind -Wl,--wrap=sched_setscheduler -Wl,--wrap=fflush -Wl,--wrap=select -Wl,--wrap=recv)

player_unit_test(HeartbeatTest SOURCES HeartbeatTest.cpp ${PROJECT_SOURCE_DIR}/src/Heartbeat.cpp LINK daemonShell)
target_link_options(HeartbeatTest PRIVATE -Wl,--wrap=socket -Wl,--wrap=sendto -Wl,--wrap=usleep)

# The process's entry under another name, for the test has a main of its own.
player_unit_test(MainTest SOURCES MainTest.cpp ${PROJECT_SOURCE_DIR}/src/Main.cpp LINK daemonShell PkgConfig::SQLITE)
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/Main.cpp PROPERTIES COMPILE_DEFINITIONS main=playerMain)
target_compile_definitions(MainTest PRIVATE AUDIOPLAYER_VERSION="${PROJECT_VERSION}")
target_link_options(MainTest PRIVATE -Wl,--wrap=pthread_create -Wl,--wrap=pthread_detach -Wl,--wrap=usleep)
