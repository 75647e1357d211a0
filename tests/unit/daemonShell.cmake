# unit tests of the daemonShell library, the audio manager and the heartbeat
player_unit_test(ByteArrayTest SOURCES ByteArrayTest.cpp LINK daemonShell)

player_unit_test(globalsTest SOURCES globalsTest.cpp LINK daemonShell)
# The test sets the time and refuses threads.
stand_in_for(globalsTest time localtime_r pthread_create)

# The threads themselves, with stand-ins for what they call: the system, and the parts that the loop services.
player_unit_test(AudioManagerTest
  SOURCES AudioManagerTest.cpp ${PROJECT_SOURCE_DIR}/src/AudioManager.cpp LINK daemonShell)
stand_in_for(AudioManagerTest socket bind sched_setscheduler fflush select recv)

player_unit_test(HeartbeatTest SOURCES HeartbeatTest.cpp ${PROJECT_SOURCE_DIR}/src/Heartbeat.cpp LINK daemonShell)
stand_in_for(HeartbeatTest socket sendto usleep)

# The process's entry under another name, for the test has a main of its own.
player_unit_test(MainTest SOURCES MainTest.cpp ${PROJECT_SOURCE_DIR}/src/Main.cpp LINK daemonShell PkgConfig::SQLITE)
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/Main.cpp PROPERTIES COMPILE_DEFINITIONS main=playerMain)
target_compile_definitions(MainTest PRIVATE AUDIOPLAYER_VERSION="${PROJECT_VERSION}")
stand_in_for(MainTest pthread_create pthread_detach usleep)
