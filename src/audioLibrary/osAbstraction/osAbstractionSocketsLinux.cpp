/**
 * The sockets of the operating system abstraction.
 *
 *   kernel --peek: one read()--> [....OOOOOOOO....] --read: in any portion--> owner
 *   owner --write: one sendto()--> kernel
 *
 * The ring is in the private context, from open to close. Its write position moves in peek and its read position in
 * read, both on the owner's thread: the automation server's and the players' is audio_manager.
 *
 * Reading never waits. Connecting and writing wait where an owner asked for it with `blocking`, and what resolves a name
 * waits for the resolver. There is no lock: a socket belongs to one owner at a time, and the table changes only in open
 * and close.
 */

#include "audioLibrary/osAbstraction/osAbstraction.h"
#include "audioLibrary/osAbstraction/osAbstractionPrivate.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr unsigned int defaultPacketBufferSize = 65536;
constexpr unsigned int firstSocketSlot = 1; ///< slot 0 stays free: a cleared object names it
constexpr int listenBacklog = 1;            ///< one peer at a time is served

struct sockContext {
    sockObject* sock;               ///< back-pointer, not owned
    int fd;                         ///< data descriptor; -1 for a server without a peer
    int listen_fd;                  ///< of a server
    char* packetBuffer;             ///< the ring, packetBufferSize + 1 bytes: the last one shows an over-long datagram
    unsigned int packetBufferRptr;  ///< bytes from the start of the ring
    unsigned int packetBufferWptr;  ///< bytes from the start of the ring
    unsigned int packetBufferCount; ///< bytes held
    sockaddr_in dest;               ///< all zero for a server and for a receiver
    bool macAddressConfigured;      ///< a static ARP entry for `dest` is ours to remove
    bool tcpConnectIssued;          ///< connect() has been called
};

// Null is a free slot. The contexts are deleted by osaSockClose, or by osaExit.
sockContext* sock_int[numSlots];

const char* trueOrFalse(bool value)
{
    return value ? "true" : "false";
}

/** Reports an index that names no slot, as an error of the operation that was called with the object. */
bool indexIsValid(const sockObject* sock, const char* function = __builtin_FUNCTION())
{
    if (sock->id.index >= numSlots) {
        OSA_ERROR_PUTS_OF(function, "invalid socket index");
        return false;
    }
    return true;
}

/** The context of an object whose index is valid; null, and reported, if its slot is free. */
sockContext* contextInSlot(const sockObject* sock, const char* function = __builtin_FUNCTION())
{
    sockContext* context = sock_int[sock->id.index];
    if (context == nullptr) {
        OSA_ERROR_PUTS_OF(function, "socket context is NULL");
    }
    return context;
}

/** The context of an object; null, and reported, if it has none. */
sockContext* contextOf(const sockObject* sock, const char* function = __builtin_FUNCTION())
{
    return indexIsValid(sock, function) ? contextInSlot(sock, function) : nullptr;
}

void clearRing(sockContext& context)
{
    context.packetBufferRptr = 0;
    context.packetBufferWptr = 0;
    context.packetBufferCount = 0;
}

// Not looked at: it can't fail on a socket that was just made, and there is no other way to go on.
void setNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL, 0);
    (void)fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

sockaddr_in addressOf(const unsigned char (&ip)[4], unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    memcpy(&address.sin_addr, ip, sizeof ip);
    return address;
}

/** Binds to `port` on every interface. Answers as bind(). */
int bindToPort(int fd, unsigned short port)
{
    const sockaddr_in address = addressOf({0, 0, 0, 0}, port); // INADDR_ANY
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

enum class readiness { toRead, toWrite };

/**
 * What select() answers for one descriptor without waiting: above 0 when it is ready, 0 when it is not, negative on an
 * error. A set of select() has room for descriptors below FD_SETSIZE and memory behind it is not its own, so a process
 * with very many files open asks poll(), which calls the same conditions ready.
 */
int readyNow(int fd, readiness wanted)
{
    if (fd < 0) {
        errno = EBADF; // a set has no place for it, and poll() passes over it
        return -1;
    }
    if (fd < FD_SETSIZE) {
        fd_set descriptors;
        FD_ZERO(&descriptors);
        FD_SET(fd, &descriptors);
        timeval atOnce{};
        return wanted == readiness::toRead ? select(fd + 1, &descriptors, nullptr, nullptr, &atOnce)
                                           : select(fd + 1, nullptr, &descriptors, nullptr, &atOnce);
    }
    pollfd descriptor{fd, static_cast<short>(wanted == readiness::toRead ? POLLIN : POLLOUT), 0};
    const int result = poll(&descriptor, 1, 0);
    if (result > 0 && (descriptor.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return result;
}

// ---- ARP entries of datagram destinations

arpreq arpRequestFor(const sockaddr_in& dest)
{
    arpreq request{};
    memcpy(&request.arp_pa, &dest, sizeof dest);
    strcpy(request.arp_dev, "eth0"); // the controller's one network port
    return request;
}

/** Removes the static entry if this socket has made one. What comes of it is not looked at: it may be gone by now. */
void removeArpEntry(sockContext& context)
{
    if (!context.macAddressConfigured) {
        return;
    }
    arpreq request = arpRequestFor(context.dest);
    (void)ioctl(context.fd, SIOCGARP, &request);
    (void)ioctl(context.fd, SIOCDARP, &request);
    context.macAddressConfigured = false;
}

/** Makes a permanent entry for `dest`; the kernel takes the address's family from the device. Answers as ioctl(). */
int addArpEntry(sockContext& context, const unsigned char (&mac)[6])
{
    arpreq request = arpRequestFor(context.dest);
    memcpy(request.arp_ha.sa_data, mac, sizeof mac);
    request.arp_flags = ATF_PERM;
    context.macAddressConfigured = true;
    return ioctl(context.fd, SIOCSARP, &request);
}

template <size_t numBytes> bool allZero(const unsigned char (&bytes)[numBytes])
{
    return std::all_of(std::begin(bytes), std::end(bytes), [](unsigned char byte) { return byte == 0; });
}

// ---- opening: the steps after a failure of which osaSockClose takes everything back

osaStatus closeAfterFailure(sockObject* sock, osaStatus status)
{
    (void)osaSockClose(sock); // the failure that led here is the one to tell
    return status;
}

/** Creates the context and its ring in a free slot. */
osaStatus createContext(sockObject* sock)
{
    sock->id.index = numSlots;
    const unsigned int slot = lowestFreeSlot(sock_int, firstSocketSlot);
    if (slot == numSlots) {
        OSA_ERROR_PUTS_OF("osaSockOpen", "No available socket context found");
        return OSA_NO_RESOURCE;
    }
    auto* context = new (std::nothrow) sockContext{};
    sock_int[slot] = context;
    if (sock->packetBufferSize == 0) {
        sock->packetBufferSize = defaultPacketBufferSize;
    }
    OSA_TRACE_PRINTF(2, "Packet Buffer Depth is %d/%d bytes\n", static_cast<int>(sock->packetBufferSize),
                     static_cast<int>(defaultPacketBufferSize));
    const size_t numBytes = size_t{sock->packetBufferSize} + 1; // 0 where a size_t is as short as the size itself
    if (context != nullptr && numBytes != 0) {
        context->sock = sock;
        context->packetBuffer = new (std::nothrow) char[numBytes];
    }
    if (context == nullptr || context->packetBuffer == nullptr) {
        OSA_ERROR_PUTS_OF("osaSockOpen", "out of memory");
        sock->id.index = slot; // for as long as it takes to give the slot back
        (void)osaSockClose(sock);
        sock->id.index = numSlots;
        return OSA_NO_MEM;
    }
    clearRing(*context);
    sock->id = {ID_SOCK_OBJECT, slot, nullptr, nullptr};
    return OSA_OK;
}

/** Makes the datagram socket of either direction. */
osaStatus openDatagramSocket(sockObject* sock, sockContext& context)
{
    context.fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (context.fd < 0) {
        OSA_ERROR_PRINTF_OF("osaSockOpen", "Unable to open socket (%d)\n", context.fd);
        sock->errorCode = context.fd;
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    sock->open = 1;
    sock->dataOpen = 1;
    return OSA_OK;
}

osaStatus openUdpIn(sockObject* sock, sockContext& context)
{
    OSA_TRACE_PRINTF(1, "Opening UDP receive socket on port %d\n", sock->rxPort);
    if (const osaStatus status = openDatagramSocket(sock, context); status != OSA_OK) {
        return status;
    }
    if (bindToPort(context.fd, sock->rxPort) < 0) {
        OSA_ERROR_PUTS_OF("osaSockOpen", strerror(errno));
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    if (sock->blocking == 0) {
        setNonBlocking(context.fd);
    }
    return OSA_OK;
}

/** How a socket that sends is to wait. */
void applyBlocking(const sockObject* sock, int fd)
{
    if (sock->blocking == 0) {
        setNonBlocking(fd);
    } else {
        OSA_TRACE_PUTS(0, "Opening socket in blocking mode");
    }
}

osaStatus openUdpOut(sockObject* sock, sockContext& context)
{
    OSA_TRACE_PRINTF(1, "Opening UDP transmit socket on port %d\n", sock->txPort);
    if (const osaStatus status = openDatagramSocket(sock, context); status != OSA_OK) {
        return status;
    }
    if (sock->txAddr.host[0] != '\0') {
        OSA_ERROR_PUTS_OF("osaSockOpen", "UDP transmit socket by hostname not supported yet");
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    context.dest = addressOf(sock->txAddr.ip, sock->txPort);
    applyBlocking(sock, context.fd);
    if (sock->allowUdpBroadcast != 0) {
        const int on = 1;
        (void)setsockopt(context.fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on); // a refusal shows at the first write
    }
    removeArpEntry(context);
    if (!allZero(sock->txAddr.mac) && addArpEntry(context, sock->txAddr.mac) < 0) {
        OSA_ERROR_PRINTF_OF("osaSockOpen", "Unable to assign MAC address: %s", strerror(errno));
        context.macAddressConfigured = false; // nothing to remove
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    return OSA_OK;
}

osaStatus openTcpClient(sockObject* sock, sockContext& context)
{
    OSA_TRACE_PRINTF(1, "Opening TCP client socket on port %d\n", sock->txPort);
    context.fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (context.fd < 0) {
        sock->errorCode = errno;
        OSA_ERROR_PRINTF_OF("osaSockOpen", "Unable to open socket (%d)\n", sock->errorCode);
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    sock->open = 1;
    sock->dataOpen = 0;
    if (sock->txAddr.host[0] != '\0' && osaGetHostByName(&sock->txAddr) != OSA_OK) {
        OSA_ERROR_PUTS_OF("osaSockOpen", "Unable to resolve host name");
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    context.dest = addressOf(sock->txAddr.ip, sock->txPort);
    applyBlocking(sock, context.fd);
    context.tcpConnectIssued = false;
    return OSA_OK;
}

osaStatus openTcpSingleServer(sockObject* sock, sockContext& context)
{
    OSA_TRACE_PRINTF(1, "Opening TCP server socket on port %d\n", sock->rxPort);
    context.fd = -1;
    context.listen_fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (context.listen_fd < 0) {
        sock->errorCode = errno;
        OSA_ERROR_PRINTF_OF("osaSockOpen", "Unable to open socket (%s)\n", strerror(sock->errorCode));
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    sock->open = 1;
    sock->dataOpen = 0;
    // sic: no value, so the option stays off, and a quick restart on the same port can fail below.
    (void)setsockopt(context.listen_fd, SOL_SOCKET, SO_REUSEADDR, nullptr, 0);
    if (bindToPort(context.listen_fd, sock->rxPort) < 0) {
        sock->errorCode = errno;
        OSA_ERROR_PRINTF_OF("osaSockOpen", "Unable to bind TCP connection to port %d (%s)\n", sock->rxPort,
                            strerror(sock->errorCode));
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    if (sock->blocking == 0) {
        setNonBlocking(context.listen_fd);
    }
    if (listen(context.listen_fd, listenBacklog) < 0) {
        OSA_ERROR_PRINTF_OF("osaSockOpen", "TCP listen error: %s\n", strerror(errno));
        return closeAfterFailure(sock, OSA_SOCK_ERROR);
    }
    return OSA_OK;
}

// ---- closing

/** Closes the descriptors of an open socket. */
void closeDescriptors(sockObject* sock, const sockContext& context)
{
    switch (sock->type) {
    case SOCKTYPE_UDP_IN:
        OSA_TRACE_PRINTF(1, "Closing receive UDP socket on port %d\n", sock->rxPort);
        close(context.fd);
        return;
    case SOCKTYPE_UDP_OUT:
        OSA_TRACE_PRINTF(1, "Closing transmit UDP socket on port %d\n", sock->txPort);
        close(context.fd);
        return;
    case SOCKTYPE_TCP_SINGLE_SERVER:
        OSA_TRACE_PRINTF(1, "Closing single TCP server socket on port %d\n", sock->rxPort);
        (void)osaTcpDataSockClose(sock); // it has a context, so there is nothing to refuse
        close(context.listen_fd);
        return;
    case SOCKTYPE_INVALID:
    case SOCKTYPE_UDP_INOUT:
    case SOCKTYPE_TCP_CLIENT:
    case SOCKTYPE_TCP_SERVER:
        break;
    }
    OSA_TRACE_PRINTF(1, "Closing socket on port %d\n", sock->rxPort);
    close(context.fd);
}

// ---- peeking

/** Holds one datagram at a time: reads the next when the ring is empty. */
int peekDatagram(sockObject* sock, sockContext& context)
{
    if (context.packetBufferCount != 0) {
        return static_cast<int>(context.packetBufferCount);
    }
    // A blocking descriptor is looked at first: with nothing waiting, the result is that of a read which does not wait.
    const bool mayRead = sock->blocking == 0 || readyNow(context.fd, readiness::toRead) > 0;
    // One byte more than fits tells a datagram that is too long from one that just fits.
    const ssize_t numRead = mayRead ? read(context.fd, context.packetBuffer, size_t{sock->packetBufferSize} + 1) : -1;
    clearRing(context);
    sock->errorCode = static_cast<int>(numRead);
    if (numRead > static_cast<ssize_t>(sock->packetBufferSize)) {
        return OSA_PACKET_BUFFER_OVER;
    }
    if (numRead == -1) {
        return 0;
    }
    if (numRead < -1) {
        return OSA_SOCK_ERROR;
    }
    context.packetBufferWptr = static_cast<unsigned int>(numRead);
    context.packetBufferCount = static_cast<unsigned int>(numRead);
    return static_cast<int>(numRead);
}

/** Puts the new peer in the place of the one before: the newest connection always wins. */
void takePeer(sockObject* sock, sockContext& context, int newFd, const sockaddr_in& peer)
{
    if (context.fd > 0) {
        printf("\n");
        printf("Closing active TCP connection on %d\n", context.fd);
        close(context.fd);
        context.fd = -1;
        sock->dataOpen = 0;
    }
    std::array<char, INET_ADDRSTRLEN> host{};
    inet_ntop(AF_INET, &peer.sin_addr, host.data(), host.size());
    printf("\n");
    printf("New TCP connection on file descriptor (%d) from:\n", newFd);
    printf("  Host Address: %s Port: %d\n", host.data(), ntohs(peer.sin_port));
    context.fd = newFd;
    if (sock->blocking == 0) {
        setNonBlocking(newFd);
    }
    clearRing(context);
    sock->dataOpen = 1;
    sock->tcpConnectionCount++;
}

/** Takes a waiting peer of a server. Answers whether data may be read after it. */
bool acceptPeer(sockObject* sock, sockContext& context)
{
    if (sock->blocking != 0) {
        const bool performSocketRead = readyNow(context.listen_fd, readiness::toRead) > 0;
        OSA_TRACE_PRINTF(1, "accept: performSocketRead==%s\n", trueOrFalse(performSocketRead));
        if (!performSocketRead) {
            return true;
        }
    }
    sockaddr_in peer{};
    socklen_t numPeerBytes = sizeof peer;
    const int newFd = accept(context.listen_fd, reinterpret_cast<sockaddr*>(&peer), &numPeerBytes);
    if (newFd >= 0) {
        takePeer(sock, context, newFd, peer);
        return true;
    }
    const int error = errno;
    if (error == EAGAIN) {
        return true;
    }
    if (error == ECONNABORTED) {
        OSA_ERROR_PUTS_OF("osaSockPeek", "TCP connection aborted");
        if (context.fd > 0) {
            close(context.fd);
            context.fd = -1;
        }
    } else {
        // The descriptor of the peer stays, deaf, until the next peer takes its place.
        OSA_ERROR_PRINTF_OF("osaSockPeek", "Accept error: %s\n", strerror(error));
    }
    sock->dataOpen = 0;
    return false;
}

/** Bytes that one read may put at the write position. The ring never fills to its last byte: full is not empty. */
unsigned int freeRun(const sockObject* sock, const sockContext& context)
{
    unsigned int run = context.packetBufferWptr < context.packetBufferRptr
                           ? context.packetBufferRptr - context.packetBufferWptr
                           : sock->packetBufferSize - context.packetBufferWptr;
    if (run + context.packetBufferCount > sock->packetBufferSize - 1) {
        run--;
    }
    return run;
}

/** Bytes held in one piece from the read position on. */
unsigned int readableRun(const sockObject* sock, const sockContext& context)
{
    return context.packetBufferWptr < context.packetBufferRptr ? sock->packetBufferSize - context.packetBufferRptr
                                                               : context.packetBufferWptr - context.packetBufferRptr;
}

/** Whether a read of the peer's data will not wait. */
bool mayReadData(const sockObject* sock, const sockContext& context)
{
    if (sock->blocking == 0) {
        return true; // the descriptor itself does not wait
    }
    const int ready = readyNow(context.fd, readiness::toRead);
    if (ready < 0) {
        OSA_TRACE_PRINTF(0, "%s %d: OHCRAP! Select failed: %d\n", __FILE__, __LINE__, ready);
    }
    OSA_TRACE_PRINTF(1, "data: performSocketRead==%s\n", trueOrFalse(ready > 0));
    return ready > 0;
}

/** Reads once from the peer into the ring. OSA_CONNECTION_LOST when the peer has closed, otherwise OSA_OK. */
osaStatus fillRing(const sockObject* sock, sockContext& context)
{
    if (!mayReadData(sock, context)) {
        return OSA_OK;
    }
    const unsigned int run = freeRun(sock, context);
    if (run == 0) {
        return OSA_OK;
    }
    char* place = context.packetBuffer + context.packetBufferWptr;
    const ssize_t numRead = read(context.fd, place, run);
    if (numRead > 0) {
        const auto numBytes = static_cast<unsigned int>(numRead);
        if (osaTraceWanted(9)) {
            // sic
            OSA_TRACE_PRINTF(9, "Read %d byes from TCP/IP socket (%d/%d)\n", static_cast<int>(numBytes),
                             static_cast<int>(context.packetBufferCount), static_cast<int>(sock->packetBufferSize));
            osaHexdump(place, numBytes);
        }
        context.packetBufferWptr = (context.packetBufferWptr + numBytes) % sock->packetBufferSize;
        context.packetBufferCount += numBytes;
    } else if (numRead == 0) {
        OSA_TRACE_PUTS(9, "TCP disconnect");
        return OSA_CONNECTION_LOST;
    } else if (numRead != -1) { // -1 is no data, or an error, which are not told apart
        OSA_TRACE_PRINTF(0, "TCP read error (%d) %s", static_cast<int>(numRead), strerror(errno));
    }
    return OSA_OK;
}

int peekStream(sockObject* sock, sockContext& context)
{
    const bool mayRead = sock->type != SOCKTYPE_TCP_SINGLE_SERVER || acceptPeer(sock, context);
    if (mayRead && sock->dataOpen != 0 && context.fd > 0) {
        if (const osaStatus status = fillRing(sock, context); status != OSA_OK) {
            return status;
        }
    }
    return static_cast<int>(readableRun(sock, context));
}

// ---- connecting

/** The first call: asks for the connection. */
osaStatus beginConnect(sockObject* sock, sockContext& context)
{
    context.tcpConnectIssued = true;
    if (connect(context.fd, reinterpret_cast<const sockaddr*>(&context.dest), sizeof context.dest) == 0) {
        OSA_TRACE_PUTS(0, "TCP client is now connected");
        sock->dataOpen = 1;
        return OSA_SOCK_ERROR; // sic: callers look at dataOpen after the first call
    }
    sock->errorCode = errno;
    sock->dataOpen = 0;
    if (sock->errorCode == EINPROGRESS) {
        OSA_TRACE_PUTS(9, "Socket connection in progress");
        return OSA_IN_PROGRESS;
    }
    OSA_TRACE_PUTS(0, "Unable to connect TCP client");
    return closeAfterFailure(sock, OSA_SOCK_ERROR);
}

/** Later calls. Writable counts as connected: a refusal shows up on the first read or write. */
osaStatus continueConnect(sockObject* sock, const sockContext& context)
{
    if (readyNow(context.fd, readiness::toWrite) > 0) {
        OSA_TRACE_PUTS(0, "TCP client is now connected (select)");
        sock->dataOpen = 1;
        return OSA_OK;
    }
    OSA_TRACE_PUTS(9, "Socket connection in progress (select)");
    return OSA_IN_PROGRESS;
}

} // namespace

osaStatus osaInit()
{
    std::fill(std::begin(sock_int), std::end(sock_int), nullptr);
    return OSA_OK;
}

osaStatus osaExit()
{
    for (sockContext*& context : sock_int) {
        delete context;
        context = nullptr;
    }
    return OSA_OK;
}

osaStatus osaSockOpen(sockObject* sock)
{
    if (sock == nullptr) {
        OSA_ERROR_PUTS("no socket object provided");
        return OSA_EINVAL;
    }
    if (sock->open != 0) {
        OSA_ERROR_PRINTF("socket %d is already opened\n", static_cast<int>(sock->id.index));
        return OSA_EINVAL;
    }
    if (sock->type == SOCKTYPE_INVALID) {
        OSA_ERROR_PUTS("socket object not configured");
        return OSA_EINVAL;
    }
    if (const osaStatus status = createContext(sock); status != OSA_OK) {
        return status;
    }
    sockContext& context = *sock_int[sock->id.index];
    switch (sock->type) {
    case SOCKTYPE_UDP_IN:
        return openUdpIn(sock, context);
    case SOCKTYPE_UDP_OUT:
        return openUdpOut(sock, context);
    case SOCKTYPE_TCP_CLIENT:
        return openTcpClient(sock, context);
    case SOCKTYPE_TCP_SINGLE_SERVER:
        return openTcpSingleServer(sock, context);
    case SOCKTYPE_INVALID:
    case SOCKTYPE_UDP_INOUT:
    case SOCKTYPE_TCP_SERVER:
        break;
    }
    OSA_ERROR_PRINTF("socket type %d not yet supported\n", sock->type);
    return closeAfterFailure(sock, OSA_EINVAL);
}

osaStatus osaSockClose(sockObject* sock)
{
    OSA_TRACE_PUTS(5, __PRETTY_FUNCTION__);
    if (!indexIsValid(sock)) {
        return OSA_EINVAL;
    }
    if (sock->open != 0) {
        sockContext* context = contextInSlot(sock);
        if (context == nullptr) {
            return OSA_EINVAL;
        }
        removeArpEntry(*context);
        closeDescriptors(sock, *context);
        sock->open = 0;
        sock->dataOpen = 0;
        context->tcpConnectIssued = false;
    }
    sockContext*& slot = sock_int[sock->id.index];
    if (sock->id.index != 0 && slot != nullptr) {
        delete[] slot->packetBuffer;
        delete slot;
        slot = nullptr;
    }
    return OSA_OK; // the object keeps its index: a second close may reach the slot's next user
}

osaStatus osaTcpDataSockClose(sockObject* sock)
{
    if (!indexIsValid(sock)) {
        return OSA_EINVAL;
    }
    if (sock->type != SOCKTYPE_TCP_SINGLE_SERVER) {
        return OSA_OK;
    }
    sockContext* context = contextInSlot(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    if (sock->dataOpen != 0) { // sic: the descriptor of a peer that a failed accept made deaf is forgotten, not closed
        close(context->fd);
    }
    sock->dataOpen = 0;
    context->fd = -1;
    OSA_TRACE_PRINTF(1, "Closing single TCP data socket on port %d\n", sock->rxPort);
    return OSA_OK;
}

osaStatus osaSockConnect(sockObject* sock)
{
    if (!indexIsValid(sock)) {
        return OSA_EINVAL;
    }
    if (sock->type != SOCKTYPE_TCP_CLIENT) {
        return OSA_OK;
    }
    if (sock->open == 0) {
        OSA_TRACE_PUTS(0, "socket not open");
        return OSA_ERROR;
    }
    sockContext* context = contextInSlot(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    return context->tcpConnectIssued ? continueConnect(sock, *context) : beginConnect(sock, *context);
}

int osaSockPeek(sockObject* sock)
{
    sockContext* context = contextOf(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    switch (sock->type) {
    case SOCKTYPE_UDP_IN:
        return peekDatagram(sock, *context);
    case SOCKTYPE_TCP_CLIENT:
    case SOCKTYPE_TCP_SINGLE_SERVER:
        return peekStream(sock, *context);
    case SOCKTYPE_INVALID:
    case SOCKTYPE_UDP_OUT:
    case SOCKTYPE_UDP_INOUT:
    case SOCKTYPE_TCP_SERVER:
        break;
    }
    OSA_ERROR_PUTS("invalid socket type");
    return OSA_EINVAL;
}

int osaSockRead(sockObject* sock, char* buf, unsigned int len)
{
    sockContext* context = contextOf(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    const unsigned int wanted = std::min(len, static_cast<unsigned int>(INT_MAX)); // the answer is an int
    unsigned int total = 0;
    unsigned int numBytes = 0;
    do {
        if (sock->type == SOCKTYPE_UDP_IN && total >= wanted) {
            break; // the next datagram stays in the kernel
        }
        const int peeked = osaSockPeek(sock);
        if (peeked < 0) {
            return total != 0 ? static_cast<int>(total) : peeked;
        }
        numBytes = std::min(static_cast<unsigned int>(peeked), wanted - total);
        if (numBytes == 0) {
            break;
        }
        memcpy(buf + total, context->packetBuffer + context->packetBufferRptr, numBytes);
        context->packetBufferRptr = (context->packetBufferRptr + numBytes) % sock->packetBufferSize;
        context->packetBufferCount -= numBytes;
        total += numBytes;
    } while (numBytes > 0);
    OSA_TRACE_PRINTF(6, "Read %d bytes from socket (%d left)\n", static_cast<int>(total),
                     static_cast<int>(context->packetBufferCount));
    return static_cast<int>(total);
}

int osaSockWrite(sockObject* sock, char* buf, unsigned int len)
{
    if (!indexIsValid(sock)) {
        return OSA_EINVAL;
    }
    if (sock->open == 0 || sock->dataOpen == 0) {
        return OSA_ERROR;
    }
    sockContext* context = contextInSlot(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    if (sock->type == SOCKTYPE_TCP_CLIENT && osaTraceWanted(6)) {
        puts("TCP Send packet:");
        osaHexdump(buf, len);
    }
    if (context->fd < 0) {
        return static_cast<int>(len);
    }
    // Without MSG_NOSIGNAL a peer that has gone would end the process.
    const ssize_t numSent = sendto(context->fd, buf, len, MSG_NOSIGNAL,
                                   reinterpret_cast<const sockaddr*>(&context->dest), sizeof context->dest);
    if (numSent < 0 || static_cast<size_t>(numSent) != len) {
        sock->errorCode = errno;
        return OSA_ERROR;
    }
    return static_cast<int>(len);
}

osaStatus osaSockFlush(sockObject* sock)
{
    sockContext* context = contextOf(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    clearRing(*context);
    std::array<char, 1024> unwanted;
    int numBytes = 0;
    do {
        numBytes = osaSockRead(sock, unwanted.data(), static_cast<unsigned int>(unwanted.size()));
    } while (numBytes > 0);
    return numBytes < 0 ? OSA_ERROR : OSA_OK;
}

osaStatus osaSockRxFlush(sockObject* sock)
{
    sockContext* context = contextOf(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    clearRing(*context);
    return OSA_OK;
}

int osaGetFileDescriptor(sockObject* sock)
{
    const sockContext* context = contextOf(sock);
    return context == nullptr ? OSA_EINVAL : context->fd;
}

int osaGetListenFileDescriptor(sockObject* sock)
{
    const sockContext* context = contextOf(sock);
    return context == nullptr ? OSA_EINVAL : context->listen_fd;
}

osaStatus osaGetHostByName(destAddress* addr)
{
    if (addr == nullptr || addr->host[0] == '\0') {
        return OSA_ERROR;
    }
    std::array<char, sizeof addr->host + 1> host{}; // a name that fills the field has no end of its own
    memcpy(host.data(), addr->host, sizeof addr->host);
    std::array<char, 1024> work;
    hostent entry;
    hostent* result = nullptr;
    int error = 0;
    (void)gethostbyname_r(host.data(), &entry, work.data(), work.size(), &result, &error); // a failure has no result
    if (result == nullptr || result->h_addr_list[0] == nullptr || result->h_length != sizeof addr->ip) {
        return OSA_ERROR;
    }
    memcpy(addr->ip, result->h_addr_list[0], sizeof addr->ip);
    return OSA_OK;
}

osaStatus osaSockDestMacAddress(sockObject* sock, char* mac)
{
    sockContext* context = contextOf(sock);
    if (context == nullptr) {
        return OSA_EINVAL;
    }
    arpreq request = arpRequestFor(context->dest);
    (void)ioctl(context->fd, SIOCGARP, &request); // without an entry the request comes back without flags
    unsigned char found[6];
    memcpy(found, request.arp_ha.sa_data, sizeof found);
    if (mac != nullptr) {
        memcpy(mac, found, sizeof found);
    }
    const bool known = (request.arp_flags & (ATF_COM | ATF_PERM)) != 0;
    return known && !allZero(found) ? OSA_OK : OSA_ERROR;
}

unsigned int osaNtohl(unsigned int value)
{
    return __builtin_bswap32(value);
}

unsigned short osaNtohs(unsigned short value)
{
    return __builtin_bswap16(value);
}
