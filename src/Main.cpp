/**
 * Process entry: reads the command line, becomes a daemon on request, builds the four long-lived objects and starts
 * the two threads. There is no orderly end: the process runs until it is killed or a fatal condition calls exit.
 */

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AudioManager.h"
#include "AudioService.h"
#include "AutomationAPI.h"
#include "Heartbeat.h"
#include "audioLibrary/audioTypes.h"
#include "globals.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/** Whether the argument begins with the two letters of `option`; what follows them is not looked at. */
bool isOption(const char* argument, const char* option)
{
    return strncmp(argument, option, 2) == 0;
}

/** Goes on as the child; a fork that fails is not fatal, and the process goes on as though it were the child. */
void leaveParent()
{
    fflush(stdout); // or parent and child would both print what is still in the buffer
    const pid_t child = fork();
    if (child > 0) {
        exit(0);
    }
    if (child < 0) {
        fputs("ERROR! Failed to fork the process\n", stderr);
    }
}

void daemonize()
{
    puts("Daemonizing... ");
    if (getppid() == 1) {
        return; // already a daemon
    }
    leaveParent();
    umask(0);
    if (setsid() == -1) {
        fputs("ERROR! Failed to create SID\n", stdout); // sic: unlike its neighbours
        exit(1);
    }
    if (chdir("/vorelk/server") == -1) {
        fputs("ERROR!, Could not change directory.\n", stderr);
        exit(1);
    }
    fputs("Audio Player Daemon Started.\n", stderr);
    // A stream that can't be reopened is closed: as silent as /dev/null.
    (void)!freopen("/dev/null", "r", stdin);
    (void)!freopen("/dev/null", "w", stdout);
    (void)!freopen("/dev/null", "w", stderr);
}

/**
 * Acts on each option as the scan reaches it. The value of -t and -p is always the next argument; nobody checks that
 * there is one.
 */
void readCommandLine(int argc, char* argv[])
{
    int remaining = argc;
    int index = 1;
    while (remaining > 1) {
        if (isOption(argv[index], "-t")) {
            log_level = audioLibrarySpace::saturatingDecimal(argv[index + 1]);
            printf("Tracelevel: %d\n", log_level);
            remaining -= 2;
            index += 2;
        } else if (isOption(argv[index], "-p")) {
            port_number = audioLibrarySpace::saturatingDecimal(argv[index + 1]);
            printf("Port:       %d\n", port_number);
            remaining -= 2;
            index += 2;
        } else if (isOption(argv[index], "-d")) {
            daemonize();
            remaining -= 1;
            index += 1;
        } else {
            fputs("Usage: AudioPlayer -t [LOG_LEVEL] -p [PORTNUMBER] -d [DAEMONIZE]\n", stderr);
            exit(0);
        }
    }
}

/** Each is in its global before the next is built: the service opens the database, the log shares its connection. */
void buildObjects()
{
    audio_database = new AudioDatabase;
    audioService = new AudioService;
    asPlayedLog = new CAsPlayedLog(audio_database->getDatabase());
    api = new AutomationAPI(audio_database);
}

} // namespace

int main(int argc, char* argv[])
{
    log_level = LOG_ALL;
    readCommandLine(argc, argv);
    printf("Vorelk Audio Player Version %s\ncompiled on %s at %s\n", AUDIOPLAYER_VERSION, __DATE__, __TIME__);
    buildObjects();
    create_thread(&audio_manager, AudioManager, nullptr, "audio_manager", 400000);
    create_thread(&heartbeat, Heartbeat, nullptr, "heartbeat", 32384);
    for (;;) {
        usleep(30000000);
    }
}
