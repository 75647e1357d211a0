/** The application's log, the process globals and two small routines that every part of the daemon shares. */

#include "globals.h"

#include "audioLibrary/audioTrace.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int log_level = LOG_ALL;
int port_number = 7004;
int* pTraceLevel = &audioLibrarySpace::audioInterfaceTraceLevel;
int serverInterfaceTraceLevel = 0;
int tracelevel = 8;

AudioDatabase* audio_database = nullptr;
AudioService* audioService = nullptr;
CAsPlayedLog* asPlayedLog = nullptr;
AutomationAPI* api = nullptr;

pthread_t audio_manager;
pthread_t heartbeat;

void LogEvent(int log_what, const char* msg, ...)
{
    // First of all, so that a disabled type costs one AND on the audio manager's thread.
    if ((log_what & log_level) == 0) {
        return;
    }
    std::array<char, 1024> buff;
    va_list arguments;
    va_start(arguments, msg);
    vsnprintf(buff.data(), buff.size(), msg, arguments);
    va_end(arguments);

    std::array<char, 50> the_date;
    GetDate(time(nullptr), the_date.data(), static_cast<int>(the_date.size()));
    fprintf(stderr, "%s [%s] %s\n", the_date.data(), translate_log_level(log_what), buff.data());
    fflush(stderr);
}

const char* translate_log_level(int level)
{
    // clang-format off
    switch (level) {
    case LOG_INFO:        return "INFO";
    case LOG_ERROR:       return "ERROR";
    case LOG_REQ:         return "REQ";
    case LOG_RES:         return "RES";
    case LOG_SERIAL:      return "SERIAL";
    case LOG_BO:          return "BO";
    case LOG_SUB:         return "SUB";
    case LOG_CONN:        return "CONN";
    case LOG_SL:          return "SL";
    case LOG_SERIAL_RESP: return "SERIAL_RESP";
    case LOG_DEBUG:       return "DEBUG";
    default:              return "UNKNOWN"; // LOG_ALL too: a mask, not a type
    }
    // clang-format on
}

void GetDate(time_t stamp, char* the_date, int max_length)
{
    struct tm local;
    if (localtime_r(&stamp, &local) == nullptr) {
        strcpy(the_date, "Unknown"); // eight bytes, whatever max_length says: every caller has them
        perror("");
        return;
    }
    if (max_length > 0 && strftime(the_date, static_cast<size_t>(max_length), "%B %d, %Y %I:%M:%S %p", &local) == 0) {
        the_date[0] = '\0'; // strftime leaves a date that does not fit without an end
    }
}

void hexdump(void* ptr, unsigned int count)
{
    osaHexdump(ptr, count);
}

int create_thread(pthread_t* thread, void* (*start_routine)(void*), void* thread_data, const char* thread_name,
                  size_t stacksize)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stacksize);
    if (pthread_create(thread, &attr, start_routine, thread_data) != 0) {
        if (thread_name != nullptr) {
            // sic: the file's name comes out as a number
            const int file = static_cast<int>(reinterpret_cast<intptr_t>(__FILE__));
            LogEvent(LOG_ERROR, "%i %d: Unable to spawn %s thread ", file, __LINE__, thread_name);
        } else {
            LogEvent(LOG_ERROR, "%s %d: Unable to Spawn anonymous thread", __FILE__, __LINE__);
        }
        exit(-1);
    }
    if (thread_name != nullptr) {
        LogEvent(LOG_INFO, "%s %d: Spawned %s thread", __FILE__, __LINE__, thread_name);
    } else {
        LogEvent(LOG_INFO, "%s %d: Spawning anonymous thread", __FILE__, __LINE__);
    }
    pthread_detach(*thread);
    return 0;
}
