#pragma once

/**
 * The application's log, the process globals and two small routines that every part of the daemon shares.
 *
 * LogEvent takes no lock and may be called from any thread, though not from the playback thread: an enabled line
 * costs formatting and a flush.
 */

#include <cstddef>
#include <ctime>
#include <pthread.h>

/** Log types; each is one bit, a mask is their sum. */
enum log_types_e : int {
    LOG_INFO = 1,
    LOG_ERROR = 2,
    LOG_REQ = 4,
    LOG_RES = 8,
    LOG_SERIAL = 16,
    LOG_BO = 32,
    LOG_SUB = 64,
    LOG_CONN = 128,
    LOG_SL = 256,
    LOG_SERIAL_RESP = 512,
    LOG_DEBUG = 1024,
    LOG_ALL = 2047,
    END_OF_LOG_TYPES = 2048,
};

class AudioDatabase;
class AudioService;
class AutomationAPI;
class CAsPlayedLog;

extern int log_level;                 ///< mask of the log types that print; set by main before the threads start
extern int port_number;               ///< UDP port of the control socket
extern int* pTraceLevel;              ///< the audio library's trace level; the library's objects have their own pointer
extern int serverInterfaceTraceLevel; ///< read by nothing
extern int tracelevel;                ///< read by nothing: the rate converter's messages are unconditional

extern AudioDatabase* audio_database; ///< set by main; never deleted
extern AudioService* audioService;    ///< set by main; never deleted
extern CAsPlayedLog* asPlayedLog;     ///< set by main; never deleted
extern AutomationAPI* api;            ///< set by main; never deleted

extern pthread_t audio_manager; ///< detached
extern pthread_t heartbeat;     ///< detached

/**
 * Prints one line to stderr, "date [TYPE] text", if any bit of `log_what` is enabled in log_level. By convention the
 * text begins "%s %d: " and is given the source file and line. The message is cut at 1023 characters.
 */
void LogEvent(int log_what, const char* msg, ...) __attribute__((format(printf, 2, 3)));

/** The label of a log type, by equality; "UNKNOWN" for masks and anything else. */
const char* translate_log_level(int level);

/** Prints a memory dump to stdout, 16 bytes a line, and always one closing line. */
void hexdump(void* ptr, unsigned int count);

/** Formats `stamp` as local time, "June 19, 2012 11:03:28 AM", into `the_date`; "Unknown" if that fails. */
void GetDate(time_t stamp, char* the_date, int max_length);

/**
 * Starts a detached thread with a stack of `stacksize` bytes. Answers 0: a thread that can't be started ends the
 * process.
 */
int create_thread(pthread_t* thread, void* (*start_routine)(void*), void* thread_data, const char* thread_name,
                  size_t stacksize);
