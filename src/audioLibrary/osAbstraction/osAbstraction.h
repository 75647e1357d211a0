#pragma once

/**
 * A thin layer over the operating system's threads, mutexes, semaphores and sockets. Each primitive is a small object
 * that the caller owns, usually as a member, backed by a private context in a fixed table of 64 a kind.
 *
 * Errors print to standard output, unfiltered: "ERROR: %s()-%d:" with function and line, then the message.
 * Threads: objects are created and released on the audio manager's thread; used from every thread.
 */

#include <cstdint>

/** Answer of every operation of this layer: 0 is success, the others are negative. */
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

/**
 * Starts a joinable thread on threadFn(threadPtr) with default attributes: it inherits the scheduling of its creator.
 * Fill both fields first.
 *
 * @return OSA_OK; OSA_EINVAL for null and for an object without threadFn; OSA_NO_RESOURCE when all 64 slots are taken;
 *         OSA_NO_MEM; OSA_THREAD_ERROR, though the system's positive error codes go unseen: such an object counts as
 *         running and is released without a join
 */
osaStatus osaCreateThread(threadObject* thread);
/** Joins the thread if it ever ran and frees its slot. The owner must have told it to stop. Always OSA_OK. */
osaStatus osaExitThread(threadObject* thread);

/**
 * Makes a mutex with default attributes. The owner keeps the object at its place until it is released.
 *
 * @return OSA_OK; OSA_EINVAL for null; OSA_NO_RESOURCE when all 64 slots are taken; OSA_NO_MEM; OSA_MUTEX_ERROR, though
 *         the system's positive error codes go unseen. Only an object that was created may be locked.
 */
osaStatus osaCreateMutex(mutexObject* mutex);
osaStatus osaReleaseMutex(mutexObject* mutex); ///< always OSA_OK; nothing happens on a free slot
osaStatus osaLock(mutexObject* mutex);         ///< always OSA_OK; real-time safe as far as its holders are
osaStatus osaTryLock(mutexObject* mutex);      ///< OSA_OK or OSA_MUTEX_NOT_AVAILABLE
osaStatus osaUnlock(mutexObject* mutex);       ///< always OSA_OK; real-time safe

/**
 * Makes a semaphore of this process that counts from `value`.
 *
 * @return OSA_OK; OSA_EINVAL for null; OSA_NO_RESOURCE when all 64 slots are taken; OSA_NO_MEM; OSA_SEMAPHORE_ERROR when
 *         the system refuses the count
 */
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
 * Reading and accepting never wait. osaSockConnect and osaSockWrite wait only with `blocking`; osaGetHostByName, and so
 * osaSockOpen of a client with a `host`, waits for the resolver.
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

// Sockets. Every operation that takes the slot from the object answers OSA_EINVAL, and reports it, for an index above 63
// ("invalid socket index") and, where it uses the context, for a slot that is free ("socket context is NULL").
// Thread: the owner's; there is no lock. Trace lines print "T%d: " with their level when `*tl` is at least that.

/** Clears the table of sockets: what it held is forgotten, not freed. Always OSA_OK. */
osaStatus osaInit();
/** Deletes every socket context and clears the table. Their rings and descriptors stay. Always OSA_OK. */
osaStatus osaExit();

/**
 * Gives a configured socket a slot, a ring and its descriptor, by `type`:
 *
 *   SOCKTYPE_UDP_IN             bound to rxPort on every interface; `open` and `dataOpen` are set
 *   SOCKTYPE_UDP_OUT            sends to txAddr.ip and txPort, which `mac` ties to a static ARP entry on eth0 unless it
 *                               is all zero; `open` and `dataOpen` are set
 *   SOCKTYPE_TCP_CLIENT         txAddr.host, unless empty, is resolved, which may take long; `open` is set.
 *                               osaSockConnect makes the connection
 *   SOCKTYPE_TCP_SINGLE_SERVER  listens on rxPort; `open` is set. osaSockPeek and osaSockRead accept its peers
 *
 * @param sock  cleared and filled by its owner, who keeps it at its place until it is closed
 * @return OSA_OK; OSA_EINVAL for null, for an object that is open and for a type that is not supported;
 *         OSA_NO_RESOURCE when all 63 slots are taken; OSA_NO_MEM; OSA_SOCK_ERROR when the system refuses a step. After
 *         a failure nothing is held and the object can be opened again.
 */
osaStatus osaSockOpen(sockObject* sock);

/**
 * Closes the descriptors, removes the ARP entry that opening made, and frees the slot. Close an object once: it keeps
 * its index, and a second close frees the slot of whoever has it by then.
 *
 * @return OSA_OK, also for an object that was never opened; OSA_EINVAL for one whose opening found no slot (its index
 *         is 64) and for an open one whose slot is free
 */
osaStatus osaSockClose(sockObject* sock);

/**
 * Connects a SOCKTYPE_TCP_CLIENT; to be called again while it answers OSA_IN_PROGRESS. `dataOpen` tells whether the
 * socket is connected. The first call asks for the connection, later ones look whether it has come; a refusal then
 * counts as connected, and shows on the first read or write. Waits only with `blocking`, in the first call.
 *
 * @return first call: OSA_IN_PROGRESS; OSA_SOCK_ERROR both when the connection stood at once (`dataOpen` 1) and when it
 *         was refused at once (the socket is then closed). Later calls: OSA_OK or OSA_IN_PROGRESS. OSA_ERROR for a
 *         socket that is not open, OSA_OK for other types.
 */
osaStatus osaSockConnect(sockObject* sock);

/**
 * Accepts a waiting peer (single server: the newest wins), reads at most once into the ring, and tells what is there.
 * A datagram socket holds one datagram at a time. Never waits.
 *
 * @return bytes that can be taken in one piece, 0 if none; OSA_CONNECTION_LOST when the peer has closed, which leaves
 *         `dataOpen` set; OSA_PACKET_BUFFER_OVER for a datagram above packetBufferSize, which is dropped;
 *         OSA_SOCK_ERROR; OSA_EINVAL for a type that does not receive
 */
int osaSockPeek(sockObject* sock);

/**
 * Copies out what has come, peeking as often as it takes. The rest of a datagram longer than `len` stays for the next
 * read. A connection lost after some data shows in the next call. Never waits.
 *
 * @param buf  room for `len` bytes, the caller's
 * @param len  bytes; cut to 2147483647
 * @return bytes copied, 0 if none, or the negative status of osaSockPeek
 */
int osaSockRead(sockObject* sock, char* buf, unsigned int len);

/**
 * Sends in one call of the system; a peer that has gone raises no signal. Waits only with `blocking`.
 *
 * @param buf  `len` bytes, the caller's
 * @return len; OSA_ERROR if the socket can't send or took less than all, of which the part sent is gone, with
 *         `errorCode` set. A server without a peer answers OSA_ERROR too.
 */
int osaSockWrite(sockObject* sock, char* buf, unsigned int len);

/** Empties the ring and reads until nothing comes. OSA_OK, or OSA_ERROR if reading ended in an error. */
osaStatus osaSockFlush(sockObject* sock);
/** Empties the ring. What the kernel holds stays. */
osaStatus osaSockRxFlush(sockObject* sock);
/** Drops the peer of a single server, which goes on listening. OSA_OK, and nothing happens, for other types. */
osaStatus osaTcpDataSockClose(sockObject* sock);
/** The data descriptor, still owned by the socket; -1 for a server without a peer. Negative status on errors. */
int osaGetFileDescriptor(sockObject* sock);
/** The listening descriptor of a server, still owned by the socket. Negative status on errors. */
int osaGetListenFileDescriptor(sockObject* sock);
/**
 * Resolves `host` into the first IPv4 address, in `ip`. Blocks for as long as the resolver takes.
 *
 * @return OSA_OK, or OSA_ERROR for null, an empty name and one that does not resolve: `ip` is unchanged then
 */
osaStatus osaGetHostByName(destAddress* addr);
/**
 * Looks up the ARP entry of the destination on eth0.
 *
 * @param[out] mac  6 bytes or null; all zero where there is no entry, written also with OSA_ERROR
 * @return OSA_OK for a complete or permanent entry with an address that is not all zero, otherwise OSA_ERROR
 */
osaStatus osaSockDestMacAddress(sockObject* sock, char* mac);
/** Swaps the bytes, on a machine of either byte order. */
unsigned int osaNtohl(unsigned int value);
/** Swaps the bytes, on a machine of either byte order. */
unsigned short osaNtohs(unsigned short value);
/**
 * Prints a memory dump to standard output, 16 bytes a line, and always one closing line: the low 32 bits of the address
 * of the line's first byte, the bytes in hex, and as characters where they are from 0x21 to 0x7e.
 */
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
