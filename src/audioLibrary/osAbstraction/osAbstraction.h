#pragma once

/**
 * A thin layer over the operating system's threads, mutexes, semaphores and sockets. Each primitive is a small object
 * that the caller owns, usually as a member, backed by a private context in a fixed table of 64 a kind.
 *
 * Errors print to standard output, unfiltered: "ERROR: %s()-%d:" with function and line, then the message.
 * Threads: objects are created and released on the audio manager's thread; used from every thread.
 */

#include <cstdint>

enum osaStatus_e : int32_t {
    OSA_OK = 0,
    OSA_ERROR = -1,
    OSA_CONNECTION_LOST = -2,
    OSA_NO_RESOURCE = -3,
    OSA_NO_MEM = -4,
    OSA_EINVAL = -5,
    OSA_SOCK_ERROR = -6,
    OSA_PACKET_BUFFER_OVER = -7,
    OSA_THREAD_ERROR = -8,
    OSA_MUTEX_ERROR = -9,
    OSA_IN_PROGRESS = -10,
    OSA_MUTEX_NOT_AVAILABLE = -11,
    OSA_SEMAPHORE_ERROR = -12,
    OSA_SEMAPHORE_NOT_AVAILABLE = -13,
};
using osaStatus = osaStatus_e;

enum idTypes : int32_t {
    ID_SOCK_OBJECT = 0,
    ID_MUTEX_OBJECT = 1, // no object carries it: mutexes and semaphores are marked ID_THREAD_OBJECT too
    ID_THREAD_OBJECT = 2,
};

/** Heads every object. `index` is the slot in the kind's table, 64 while the object has none. */
struct objId {
    idTypes type = ID_SOCK_OBJECT;
    unsigned int index = 64;
    objId* next = nullptr; ///< read by nothing
    objId* prev = nullptr; ///< read by nothing
};
using objectId = objId;

struct threadObject {
    objectId id;
    int running = 0;                    ///< a join is due; not a stop flag
    void* threadPtr = nullptr;          ///< the thread's argument
    void* (*threadFn)(void*) = nullptr; ///< the thread's body
};

struct mutexObject {
    objectId id;
};

struct semaphoreObject {
    objectId id;
};

/** Trace level of this layer; 0, and nothing writes it. */
extern unsigned int osa_trace_level;
extern unsigned int* tl;

/** Starts a joinable thread on threadFn(threadPtr) with default attributes. Fill both fields first. */
osaStatus osaCreateThread(threadObject* thread);
/** Joins the thread if it ever ran and frees its slot. The owner must have told it to stop. Always OSA_OK. */
osaStatus osaExitThread(threadObject* thread);

osaStatus osaCreateMutex(mutexObject* mutex);
osaStatus osaReleaseMutex(mutexObject* mutex); ///< always OSA_OK; nothing happens on a free slot
osaStatus osaLock(mutexObject* mutex);         ///< always OSA_OK; real-time safe as far as its holders are
osaStatus osaTryLock(mutexObject* mutex);      ///< OSA_OK or OSA_MUTEX_NOT_AVAILABLE
osaStatus osaUnlock(mutexObject* mutex);       ///< always OSA_OK; real-time safe

osaStatus osaCreateSemaphore(semaphoreObject* semaphore, unsigned int value);
osaStatus osaReleaseSemaphore(semaphoreObject* semaphore); ///< always OSA_OK
osaStatus osaWaitSemaphore(semaphoreObject* semaphore);    ///< always OSA_OK, also after a signal cut the wait short
osaStatus
osaTryWaitSemaphore(semaphoreObject* semaphore); ///< OSA_OK, OSA_SEMAPHORE_NOT_AVAILABLE or OSA_SEMAPHORE_ERROR
osaStatus osaSignalSemaphore(semaphoreObject* semaphore); ///< always OSA_OK

enum sockType_e : int32_t {
    SOCKTYPE_INVALID = 0, ///< an object that has not been configured
    SOCKTYPE_UDP_IN = 1,
    SOCKTYPE_UDP_OUT = 2,
    SOCKTYPE_UDP_INOUT = 3, ///< not supported
    SOCKTYPE_TCP_CLIENT = 4,
    SOCKTYPE_TCP_SINGLE_SERVER = 5, ///< one peer at a time: the newest connection wins
    SOCKTYPE_TCP_SERVER = 6,        ///< not supported
};
using sockType = sockType_e;

struct destAddress {
    char host[100] = "";      ///< a name to resolve; empty means use `ip`
    unsigned char ip[4] = {}; ///< in network order
    unsigned char mac[6] = {};
};

/**
 * A socket. The owner clears the object (`sockObject{}`), fills the configuration, opens it, and closes it once.
 * Every operation polls: none waits for a peer or for data, but osaGetHostByName for the resolver.
 */
struct sockObject {
    objectId id{ID_SOCK_OBJECT, 0, nullptr, nullptr}; ///< slot 0 is never given out: it names no live context
    int open = 0;                                     ///< the socket exists
    int dataOpen = 0;                                 ///< data can flow: datagram socket open, or TCP peer connected
    sockType type = SOCKTYPE_INVALID;                 ///< configuration
    destAddress txAddr;                               ///< configuration: destination
    unsigned short txPort = 0;                        ///< configuration: destination port
    int allowUdpBroadcast = 0;                        ///< configuration: SO_BROADCAST on SOCKTYPE_UDP_OUT
    unsigned int packetBufferSize = 0;                ///< configuration: ring size in bytes; 0 selects 65536
    int blocking = 0;                                 ///< configuration: 0 makes the descriptors non-blocking
    destAddress rxAddr;                               ///< read by nothing
    unsigned short rxPort = 0;                        ///< configuration: local port
    int errorCode = 0;                                ///< last errno; for SOCKTYPE_UDP_IN the result of the last read
    unsigned int tcpConnectionCount = 0;              ///< connections accepted so far
};

osaStatus osaInit(); ///< Clears the table of sockets.
osaStatus osaExit(); ///< Deletes every socket context and clears the table; closes no descriptor.

osaStatus osaSockOpen(sockObject* sock);
osaStatus osaSockClose(sockObject* sock);
osaStatus osaSockConnect(sockObject* sock);
int osaSockPeek(sockObject* sock);
int osaSockRead(sockObject* sock, char* buf, unsigned int len);
int osaSockWrite(sockObject* sock, char* buf, unsigned int len);
osaStatus osaSockFlush(sockObject* sock);
osaStatus osaSockRxFlush(sockObject* sock);
osaStatus osaTcpDataSockClose(sockObject* sock);
int osaGetFileDescriptor(sockObject* sock);
int osaGetListenFileDescriptor(sockObject* sock);
osaStatus osaGetHostByName(destAddress* addr);
osaStatus osaSockDestMacAddress(sockObject* sock, char* mac);
unsigned int osaNtohl(unsigned int value);
unsigned short osaNtohs(unsigned short value);
void osaHexdump(void* ptr, unsigned int count);

/** Holds a mutex for a scope. */
class osaLockGuard
{
public:
    explicit osaLockGuard(mutexObject& m) : mutex(m) { osaLock(&mutex); }
    ~osaLockGuard() { osaUnlock(&mutex); }
    osaLockGuard(const osaLockGuard&) = delete;
    osaLockGuard& operator=(const osaLockGuard&) = delete;

private:
    mutexObject& mutex;
};

/** Releases a held mutex for a scope: around calls into foreign code. */
class osaUnlockGuard
{
public:
    explicit osaUnlockGuard(mutexObject& m) : mutex(m) { osaUnlock(&mutex); }
    ~osaUnlockGuard() { osaLock(&mutex); }
    osaUnlockGuard(const osaUnlockGuard&) = delete;
    osaUnlockGuard& operator=(const osaUnlockGuard&) = delete;

private:
    mutexObject& mutex;
};
