/**
 * Sockets: slots, statuses, texts, the ring, and what becomes of each refusal of the system.
 *
 * Every test runs in a network namespace of its own with nothing but the loopback in it, so that ports are its own. What
 * the kernel can't be made to do is answered by the stand-ins below, once each, when a test asks for it.
 */

#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace
{

// ---- the system's stand-ins

/** Answers of one call of the system: those queued first, then the system's own. */
class StandIn
{
public:
    struct Answer {
        long result;
        int error;
    };

    void fail(int error) { answers.push_back({-1, error}); }
    void answer(long result, int error = 0) { answers.push_back({result, error}); }

    /** The next answer that a test has queued; sets errno. */
    std::optional<long> next()
    {
        calls++;
        if (answers.empty()) {
            return std::nullopt;
        }
        const Answer answer = answers.front();
        answers.pop_front();
        errno = answer.error;
        return answer.result;
    }

    int calls = 0;

private:
    std::deque<Answer> answers;
};

struct SocketCall {
    int domain;
    int type;
    int protocol;
    bool operator==(const SocketCall&) const = default;
};

struct ReadCall {
    int fd;
    size_t numBytes;
};

struct SelectCall {
    int numDescriptors;
    bool toRead;
    bool toWrite;
    bool atOnce;
};

struct SendCall {
    int flags;
    socklen_t numAddressBytes;
    sockaddr_in dest;
};

struct OptionCall {
    int level;
    int name;
    const void* value;
    socklen_t numBytes;
};

struct ArpCall {
    unsigned long request;
    arpreq entry;
};

/** What the stand-ins answer and what they have seen. */
struct System {
    StandIn socket, bind, listen, accept, connect, select, poll, read, sendto, ioctl;
    std::vector<SocketCall> sockets;
    std::vector<int> backlogs;
    std::vector<ReadCall> reads;
    std::vector<SelectCall> selects;
    std::vector<SendCall> sends;
    std::vector<OptionCall> options;
    std::vector<ArpCall> arps;
    std::optional<arpreq> foundArp; ///< what SIOCGARP answers
    std::optional<int> resolverAddressLength;
    bool resolverFindsNothing = false;
    bool resolverFindsNoAddress = false;
    size_t resolverBufferBytes = 0;
    std::string resolvedName;
};

System systemCalls;

/** Counts down to the allocation that is refused; negative refuses none. */
int allocationsUntilRefusal = -1;
std::vector<size_t> arrayAllocations;
const void* newestContext = nullptr; ///< contexts are all that is allocated one by one

bool allocationIsRefused()
{
    return allocationsUntilRefusal >= 0 && allocationsUntilRefusal-- == 0;
}

} // namespace

void* operator new(size_t numBytes, const std::nothrow_t&) noexcept
{
    void* context = allocationIsRefused() ? nullptr : ::operator new(numBytes);
    newestContext = context;
    return context;
}

void* operator new[](size_t numBytes, const std::nothrow_t&) noexcept
{
    arrayAllocations.push_back(numBytes);
    return allocationIsRefused() ? nullptr : ::operator new[](numBytes);
}

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    systemCalls.sockets.push_back({domain, type, protocol});
    const auto answer = systemCalls.socket.next();
    return answer ? static_cast<int>(*answer) : __real_socket(domain, type, protocol);
}

int __real_bind(int fd, const sockaddr* address, socklen_t numBytes);
int __wrap_bind(int fd, const sockaddr* address, socklen_t numBytes)
{
    const auto answer = systemCalls.bind.next();
    return answer ? static_cast<int>(*answer) : __real_bind(fd, address, numBytes);
}

int __real_listen(int fd, int backlog);
int __wrap_listen(int fd, int backlog)
{
    systemCalls.backlogs.push_back(backlog);
    const auto answer = systemCalls.listen.next();
    return answer ? static_cast<int>(*answer) : __real_listen(fd, backlog);
}

int __real_accept(int fd, sockaddr* address, socklen_t* numBytes);
int __wrap_accept(int fd, sockaddr* address, socklen_t* numBytes)
{
    const auto answer = systemCalls.accept.next();
    return answer ? static_cast<int>(*answer) : __real_accept(fd, address, numBytes);
}

int __real_connect(int fd, const sockaddr* address, socklen_t numBytes);
int __wrap_connect(int fd, const sockaddr* address, socklen_t numBytes)
{
    const auto answer = systemCalls.connect.next();
    return answer ? static_cast<int>(*answer) : __real_connect(fd, address, numBytes);
}

int __real_select(int numDescriptors, fd_set* toRead, fd_set* toWrite, fd_set* others, timeval* timeout);
int __wrap_select(int numDescriptors, fd_set* toRead, fd_set* toWrite, fd_set* others, timeval* timeout)
{
    const bool atOnce = timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0;
    systemCalls.selects.push_back({numDescriptors, toRead != nullptr && FD_ISSET(numDescriptors - 1, toRead),
                                   toWrite != nullptr && FD_ISSET(numDescriptors - 1, toWrite), atOnce});
    const auto answer = systemCalls.select.next();
    return answer ? static_cast<int>(*answer) : __real_select(numDescriptors, toRead, toWrite, others, timeout);
}

int __real_poll(pollfd* descriptors, nfds_t numDescriptors, int timeout);
int __wrap_poll(pollfd* descriptors, nfds_t numDescriptors, int timeout)
{
    const auto answer = systemCalls.poll.next();
    return answer ? static_cast<int>(*answer) : __real_poll(descriptors, numDescriptors, timeout);
}

ssize_t __real_read(int fd, void* place, size_t numBytes);
ssize_t __wrap_read(int fd, void* place, size_t numBytes)
{
    systemCalls.reads.push_back({fd, numBytes});
    const auto answer = systemCalls.read.next();
    return answer ? static_cast<ssize_t>(*answer) : __real_read(fd, place, numBytes);
}

ssize_t __real_sendto(int fd, const void* bytes, size_t numBytes, int flags, const sockaddr* dest, socklen_t destBytes);
ssize_t __wrap_sendto(int fd, const void* bytes, size_t numBytes, int flags, const sockaddr* dest, socklen_t destBytes)
{
    SendCall call{flags, destBytes, {}};
    memcpy(&call.dest, dest, std::min(size_t{destBytes}, sizeof call.dest));
    systemCalls.sends.push_back(call);
    const auto answer = systemCalls.sendto.next();
    return answer ? static_cast<ssize_t>(*answer) : __real_sendto(fd, bytes, numBytes, flags, dest, destBytes);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t numBytes);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t numBytes)
{
    systemCalls.options.push_back({level, name, value, numBytes});
    return __real_setsockopt(fd, level, name, value, numBytes);
}

int __real_ioctl(int fd, unsigned long request, void* argument);
int __wrap_ioctl(int fd, unsigned long request, void* argument)
{
    if (request != SIOCGARP && request != SIOCSARP && request != SIOCDARP) {
        return __real_ioctl(fd, request, argument);
    }
    auto* entry = static_cast<arpreq*>(argument);
    systemCalls.arps.push_back({request, *entry});
    if (request == SIOCGARP && systemCalls.foundArp) {
        *entry = *systemCalls.foundArp;
        return 0;
    }
    const auto answer = systemCalls.ioctl.next();
    return answer ? static_cast<int>(*answer) : __real_ioctl(fd, request, argument);
}

int __real_gethostbyname_r(const char* name, hostent* entry, char* buffer, size_t numBytes, hostent** result,
                           int* error);
int __wrap_gethostbyname_r(const char* name, hostent* entry, char* buffer, size_t numBytes, hostent** result,
                           int* error)
{
    systemCalls.resolverBufferBytes = numBytes;
    systemCalls.resolvedName = name;
    if (systemCalls.resolverFindsNothing) {
        *result = nullptr;
        *error = HOST_NOT_FOUND;
        return 0;
    }
    const int status = __real_gethostbyname_r(name, entry, buffer, numBytes, result, error);
    if (systemCalls.resolverAddressLength) {
        entry->h_length = *systemCalls.resolverAddressLength;
    }
    if (systemCalls.resolverFindsNoAddress) {
        entry->h_addr_list[0] = nullptr;
    }
    return status;
}
}

namespace
{

constexpr unsigned short ourPort = 8500;
constexpr unsigned short theirPort = 7004;

// ---- small verbs

/** Descriptors of this process. */
int numDescriptors()
{
    int count = 0;
    DIR* directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        count++;
    }
    closedir(directory);
    return count;
}

/** Puts '#' in the place of the line number of each error report: "ERROR: osaSockOpen()-123:text". */
std::string withoutLineNumbers(const std::string& text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        result += text[i];
        if (result.size() >= 3 && result.ends_with("()-")) {
            result += '#';
            while (i + 1 < text.size() && isdigit(static_cast<unsigned char>(text[i + 1])) != 0) {
                i++;
            }
        }
    }
    return result;
}

/** What `operation` prints. */
template <typename Operation> std::string printedBy(Operation operation)
{
    CaptureStdout();
    operation();
    return withoutLineNumbers(GetCapturedStdout());
}

/** What `operation` prints while the trace level is `level`. */
template <typename Operation> std::string tracedAt(unsigned int level, Operation operation)
{
    osa_trace_level = level;
    const std::string printed = printedBy(operation);
    osa_trace_level = 0;
    return printed;
}

void waitFor(int fd, short event)
{
    pollfd descriptor{fd, event, 0};
    ASSERT_EQ(__real_poll(&descriptor, 1, 10000), 1) << "nothing came";
}

/** Until the kernel holds `numBytes` for `fd`. */
void waitForBytes(int fd, int numBytes)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int held = 0;
    do {
        ASSERT_EQ(ioctl(fd, FIONREAD, &held), 0);
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << "nothing came";
    } while (held < numBytes);
}

bool isNonBlocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

sockaddr_in loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_in ownAddress(int fd)
{
    sockaddr_in address{};
    socklen_t numBytes = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &numBytes);
    return address;
}

int socketOption(int fd, int name)
{
    int value = -1;
    socklen_t numBytes = sizeof value;
    getsockopt(fd, SOL_SOCKET, name, &value, &numBytes);
    return value;
}

/** A descriptor that is closed with its scope. */
class Descriptor
{
public:
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    ~Descriptor() { shut(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    void shut()
    {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }

    int fd;
};

/** The other end of a TCP connection, on plain system calls. */
class Peer : public Descriptor
{
public:
    explicit Peer(unsigned short port = ourPort) : Descriptor(__real_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
    {
        const sockaddr_in address = loopback(port);
        EXPECT_EQ(__real_connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    void say(const std::string& text) const
    {
        EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    /** Goes away without a word: the other end finds its connection reset. */
    void reset()
    {
        const linger atOnce{1, 0};
        __real_setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        shut();
    }

    unsigned short port() const { return ntohs(ownAddress(fd).sin_port); }
};

/** A listener on plain system calls, for our clients. */
class Listener : public Descriptor
{
public:
    explicit Listener(unsigned short port) : Descriptor(__real_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
    {
        const sockaddr_in address = loopback(port);
        EXPECT_EQ(__real_bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(__real_listen(fd, 5), 0);
    }

    int take() const { return __real_accept(fd, nullptr, nullptr); }
};

/** A datagram socket on plain system calls. */
class DatagramPeer : public Descriptor
{
public:
    explicit DatagramPeer(unsigned short boundTo = 0) : Descriptor(__real_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP))
    {
        const sockaddr_in address = loopback(boundTo);
        EXPECT_EQ(__real_bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    void say(const std::string& text, unsigned short port) const
    {
        const sockaddr_in address = loopback(port);
        EXPECT_EQ(
            __real_sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address),
            static_cast<ssize_t>(text.size()));
    }
};

std::string received(int fd, size_t numBytes = 4096)
{
    std::string text(numBytes, '\0');
    waitFor(fd, POLLIN);
    text.resize(static_cast<size_t>(std::max(recv(fd, text.data(), text.size(), 0), ssize_t{0})));
    return text;
}

/** A socket of ours that is closed with its scope. */
struct OwnSocket : sockObject {
    explicit OwnSocket(sockType wanted, unsigned int ringBytes = 0)
    {
        type = wanted;
        rxPort = ourPort;
        txPort = theirPort;
        txAddr.ip[0] = 127;
        txAddr.ip[3] = 1;
        packetBufferSize = ringBytes;
    }
    ~OwnSocket()
    {
        if (open != 0) {
            osaSockClose(this);
        }
    }
    OwnSocket(const OwnSocket&) = delete;
    OwnSocket& operator=(const OwnSocket&) = delete;

    int fd() { return osaGetFileDescriptor(this); }
    int listenFd() { return osaGetListenFileDescriptor(this); }
};

/** Peeks without the lines that an accepted peer prints. */
int quietPeek(sockObject& sock)
{
    int result = 0;
    printedBy([&] { result = osaSockPeek(&sock); });
    return result;
}

/** What osaSockRead answers: the bytes, or the status as text. */
std::string readText(sockObject& sock, unsigned int len = 4096)
{
    std::string text(std::min(len, 100000U), '\0');
    const int result = osaSockRead(&sock, text.data(), len);
    if (result < 0) {
        return "status " + std::to_string(result);
    }
    text.resize(static_cast<size_t>(result));
    return text;
}

/** Opens the server and lets the peer in. */
void acceptFor(OwnSocket& server, Peer& peer)
{
    ASSERT_GE(peer.fd, 0);
    waitFor(server.listenFd(), POLLIN);
    const unsigned int before = server.tcpConnectionCount;
    quietPeek(server);
    ASSERT_EQ(server.tcpConnectionCount, before + 1);
}

/** Lets the peer's bytes come in and be seen. */
void sayTo(OwnSocket& sock, const Peer& peer, const std::string& text)
{
    peer.say(text);
    waitForBytes(sock.fd(), static_cast<int>(text.size()));
}

void bringUp(const char* device)
{
    const Descriptor any(__real_socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    strcpy(request.ifr_name, device);
    ASSERT_EQ(__real_ioctl(any.fd, SIOCGIFFLAGS, &request), 0);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ASSERT_EQ(__real_ioctl(any.fd, SIOCSIFFLAGS, &request), 0);
}

class OsaSockets : public testing::Test
{
protected:
    void SetUp() override
    {
        systemCalls = {};
        allocationsUntilRefusal = -1;
        arrayAllocations.clear();
        osa_trace_level = 0;
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "network namespaces need root";
        ASSERT_NO_FATAL_FAILURE(bringUp("lo"));
        numDescriptorsBefore = numDescriptors();
    }

    void TearDown() override
    {
        systemCalls = {};
        allocationsUntilRefusal = -1;
        osa_trace_level = 0;
        EXPECT_EQ(numDescriptors(), numDescriptorsBefore) << "a descriptor has leaked";
        OwnSocket first(SOCKTYPE_UDP_OUT);
        EXPECT_EQ(osaSockOpen(&first), OSA_OK);
        EXPECT_EQ(first.id.index, 1U) << "a slot has leaked";
    }

    int numDescriptorsBefore = 0;
};

const std::string depth64k = "T2: Packet Buffer Depth is 65536/65536 bytes\n";
const std::string closeCall = "T5: osaStatus osaSockClose(sockObject*)\n";

} // namespace

// ---- vocabulary

TEST_F(OsaSockets, NumbersOfTypesAreFixed)
{
    EXPECT_EQ(SOCKTYPE_INVALID, 0);
    EXPECT_EQ(SOCKTYPE_UDP_IN, 1);
    EXPECT_EQ(SOCKTYPE_UDP_OUT, 2);
    EXPECT_EQ(SOCKTYPE_UDP_INOUT, 3);
    EXPECT_EQ(SOCKTYPE_TCP_CLIENT, 4);
    EXPECT_EQ(SOCKTYPE_TCP_SINGLE_SERVER, 5);
    EXPECT_EQ(SOCKTYPE_TCP_SERVER, 6);
    EXPECT_EQ(sizeof(destAddress), 110U);
    EXPECT_EQ(sockObject{}.id.index, 0U);
}

// ---- opening: what is refused before anything is made

TEST_F(OsaSockets, OpeningNullIsRefused)
{
    EXPECT_EQ(printedBy([] { EXPECT_EQ(osaSockOpen(nullptr), OSA_EINVAL); }),
              "ERROR: osaSockOpen()-#:no socket object provided\n");
}

TEST_F(OsaSockets, OpeningTwiceIsRefusedAndChangesNothing)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    const int fd = sock.fd();
    const int before = numDescriptors();
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_EINVAL); }),
              "ERROR: osaSockOpen()-#:socket 1 is already opened\n");
    EXPECT_EQ(sock.fd(), fd);
    EXPECT_EQ(sock.id.index, 1U);
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(numDescriptors(), before);
}

TEST_F(OsaSockets, AnObjectThatIsOpenIsRefusedBeforeItsTypeIsLookedAt)
{
    sockObject sock{};
    sock.open = 1;
    sock.id.index = 7;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_EINVAL); }),
              "ERROR: osaSockOpen()-#:socket 7 is already opened\n");
}

TEST_F(OsaSockets, OpeningAnUnconfiguredObjectIsRefused)
{
    sockObject sock{};
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_EINVAL); }),
              "ERROR: osaSockOpen()-#:socket object not configured\n");
    EXPECT_EQ(sock.id.index, 0U);
}

TEST_F(OsaSockets, TypesThatAreNotSupportedAreRefusedAndHoldNothing)
{
    for (const int type : {3, 6, 7, -1}) {
        sockObject sock{};
        sock.type = static_cast<sockType>(type);
        EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_EINVAL); }),
                  depth64k + "ERROR: osaSockOpen()-#:socket type " + std::to_string(type) + " not yet supported\n" +
                      closeCall);
        EXPECT_EQ(sock.open, 0);
    }
    EXPECT_EQ(systemCalls.socket.calls, 0);
}

// ---- slots

TEST_F(OsaSockets, SlotsOneTo63AreGivenLowestFirst)
{
    std::array<sockObject, 63> all;
    for (unsigned int i = 0; i < all.size(); i++) {
        all[i].type = SOCKTYPE_UDP_OUT;
        ASSERT_EQ(osaSockOpen(&all[i]), OSA_OK);
        EXPECT_EQ(all[i].id.index, i + 1);
    }
    sockObject one{};
    one.type = SOCKTYPE_UDP_OUT;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&one), OSA_NO_RESOURCE); }),
              "ERROR: osaSockOpen()-#:No available socket context found\n");
    EXPECT_EQ(one.id.index, 64U);
    EXPECT_EQ(one.open, 0);
    osaSockClose(&all[40]);
    osaSockClose(&all[6]);
    ASSERT_EQ(osaSockOpen(&one), OSA_OK);
    EXPECT_EQ(one.id.index, 7U);
    ASSERT_EQ(osaSockOpen(&all[40]), OSA_OK);
    EXPECT_EQ(all[40].id.index, 41U);
    all[6] = one;
    for (sockObject& sock : all) {
        EXPECT_EQ(osaSockClose(&sock), OSA_OK);
    }
}

TEST_F(OsaSockets, OpeningFillsTheIdentity)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    objectId other;
    sock.id = {ID_THREAD_OBJECT, 33, &other, &other};
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(sock.id.type, ID_SOCK_OBJECT);
    EXPECT_EQ(sock.id.index, 1U);
    EXPECT_EQ(sock.id.next, nullptr);
    EXPECT_EQ(sock.id.prev, nullptr);
}

namespace
{

/** An operation that takes the slot from the object. */
struct SlotUser {
    const char* name;
    int (*call)(sockObject* sock);
};

char someBytes[8];

const SlotUser slotUsers[] = {
    {"osaSockClose", [](sockObject* sock) -> int { return osaSockClose(sock); }},
    {"osaSockConnect", [](sockObject* sock) -> int { return osaSockConnect(sock); }},
    {"osaSockPeek", osaSockPeek},
    {"osaSockRead", [](sockObject* sock) -> int { return osaSockRead(sock, someBytes, sizeof someBytes); }},
    {"osaSockWrite", [](sockObject* sock) -> int { return osaSockWrite(sock, someBytes, sizeof someBytes); }},
    {"osaSockFlush", [](sockObject* sock) -> int { return osaSockFlush(sock); }},
    {"osaSockRxFlush", [](sockObject* sock) -> int { return osaSockRxFlush(sock); }},
    {"osaGetFileDescriptor", osaGetFileDescriptor},
    {"osaGetListenFileDescriptor", osaGetListenFileDescriptor},
    {"osaSockDestMacAddress", [](sockObject* sock) -> int { return osaSockDestMacAddress(sock, someBytes); }},
};

const SlotUser dataSockClose = {"osaTcpDataSockClose",
                                [](sockObject* sock) -> int { return osaTcpDataSockClose(sock); }};

void expectRefusal(const SlotUser& user, sockObject& sock, const std::string& text)
{
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(user.call(&sock), OSA_EINVAL); }),
              std::string("ERROR: ") + user.name + "()-#:" + text);
}

} // namespace

TEST_F(OsaSockets, AnIndexAbove63IsInvalidEverywhere)
{
    sockObject sock{};
    sock.type = SOCKTYPE_TCP_CLIENT;
    sock.open = 1;
    sock.dataOpen = 1;
    for (const unsigned int index : {64U, UINT_MAX}) {
        sock.id.index = index;
        for (const SlotUser& user : slotUsers) {
            expectRefusal(user, sock, "invalid socket index\n");
        }
        expectRefusal(dataSockClose, sock, "invalid socket index\n");
    }
}

TEST_F(OsaSockets, AFreeSlotIsRefusedWhereTheContextIsUsed)
{
    sockObject sock{};
    sock.open = 1;
    sock.dataOpen = 1;
    for (const unsigned int index : {0U, 1U, 63U}) {
        sock.id.index = index;
        sock.type = SOCKTYPE_TCP_CLIENT;
        for (const SlotUser& user : slotUsers) {
            expectRefusal(user, sock, "socket context is NULL\n");
        }
        sock.type = SOCKTYPE_TCP_SINGLE_SERVER;
        expectRefusal(dataSockClose, sock, "socket context is NULL\n");
    }
}

TEST_F(OsaSockets, InitForgetsTheSocketsAndExitDeletesTheirContexts)
{
    OwnSocket forgotten(SOCKTYPE_UDP_OUT);
    OwnSocket deleted(SOCKTYPE_UDP_OUT);
#ifdef __SANITIZE_ADDRESS__
    __lsan_disable(); // neither operation frees a ring, and init not even the context
#endif
    ASSERT_EQ(osaSockOpen(&forgotten), OSA_OK);
    const int fd = forgotten.fd();
    EXPECT_EQ(osaInit(), OSA_OK);
    EXPECT_EQ(printedBy([&] { osaGetFileDescriptor(&forgotten); }),
              "ERROR: osaGetFileDescriptor()-#:socket context is NULL\n");
    ASSERT_EQ(osaSockOpen(&deleted), OSA_OK);
#ifdef __SANITIZE_ADDRESS__
    __lsan_enable();
#endif
    EXPECT_EQ(deleted.id.index, 1U);
    const int otherFd = deleted.fd();
    EXPECT_EQ(osaExit(), OSA_OK);
#ifdef __SANITIZE_ADDRESS__
    EXPECT_TRUE(__asan_address_is_poisoned(newestContext));
#endif
    EXPECT_EQ(printedBy([&] { osaGetFileDescriptor(&deleted); }),
              "ERROR: osaGetFileDescriptor()-#:socket context is NULL\n");
    EXPECT_GE(fcntl(fd, F_GETFD), 0); // the descriptors are open still
    EXPECT_GE(fcntl(otherFd, F_GETFD), 0);
    close(fd);
    close(otherFd);
    forgotten.open = 0;
    deleted.open = 0;
}

// ---- memory

TEST_F(OsaSockets, ASizeOfZeroGivesARingOf65536BytesInABufferOfOneMore)
{
    OwnSocket sock(SOCKTYPE_UDP_IN, 0);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(sock.packetBufferSize, 65536U);
    EXPECT_THAT(arrayAllocations, ElementsAre(65537U));
}

TEST_F(OsaSockets, AnotherSizeIsKept)
{
    OwnSocket sock(SOCKTYPE_UDP_IN, 100);
    EXPECT_EQ(tracedAt(2, [&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }),
              "T2: Packet Buffer Depth is 100/65536 bytes\nT1: Opening UDP receive socket on port 8500\n");
    EXPECT_EQ(sock.packetBufferSize, 100U);
    EXPECT_THAT(arrayAllocations, ElementsAre(101U));
}

TEST_F(OsaSockets, OutOfMemoryForContextOrRingHoldsNothing)
{
    for (const int refused : {0, 1}) {
        OwnSocket sock(SOCKTYPE_UDP_IN);
        allocationsUntilRefusal = refused;
        EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_NO_MEM); }),
                  depth64k + "ERROR: osaSockOpen()-#:out of memory\n" + closeCall);
        allocationsUntilRefusal = -1;
        EXPECT_EQ(sock.id.index, 64U);
        EXPECT_EQ(sock.open, 0);
        EXPECT_EQ(systemCalls.socket.calls, 0);
        ASSERT_EQ(osaSockOpen(&sock), OSA_OK); // and can be opened again
        EXPECT_EQ(sock.id.index, 1U);
        osaSockClose(&sock);
        systemCalls.socket.calls = 0;
    }
}

TEST_F(OsaSockets, TheLargestRingsSizeDoesNotWrap)
{
    OwnSocket sock(SOCKTYPE_UDP_IN, UINT_MAX);
    allocationsUntilRefusal = 1;
    printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_NO_MEM); });
    for (const size_t numBytes : arrayAllocations) { // none where a size is 32 bits
        EXPECT_EQ(numBytes, uint64_t{1} << 32);
    }
}

// ---- opening, by type

TEST_F(OsaSockets, UdpInOpensBoundToEveryInterface)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    EXPECT_EQ(tracedAt(9, [&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }),
              depth64k + "T1: Opening UDP receive socket on port 8500\n");
    EXPECT_THAT(systemCalls.sockets, ElementsAre(SocketCall{AF_INET, SOCK_DGRAM, IPPROTO_UDP}));
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(ownAddress(sock.fd()).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ownAddress(sock.fd()).sin_port, htons(8500));
    EXPECT_TRUE(isNonBlocking(sock.fd()));
}

TEST_F(OsaSockets, UdpInStaysBlockingOnRequestWithoutALine)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    sock.blocking = 1;
    EXPECT_EQ(printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }), "");
    EXPECT_FALSE(isNonBlocking(sock.fd()));
}

TEST_F(OsaSockets, UdpOutOpens)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    EXPECT_EQ(tracedAt(9, [&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }),
              depth64k + "T1: Opening UDP transmit socket on port 7004\n");
    EXPECT_THAT(systemCalls.sockets, ElementsAre(SocketCall{AF_INET, SOCK_DGRAM, IPPROTO_UDP}));
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_TRUE(isNonBlocking(sock.fd()));
    EXPECT_EQ(socketOption(sock.fd(), SO_BROADCAST), 0);
    EXPECT_TRUE(systemCalls.arps.empty());
}

TEST_F(OsaSockets, UdpOutInBlockingModeSaysSo)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    sock.blocking = 1;
    EXPECT_EQ(printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }), "T0: Opening socket in blocking mode\n");
    EXPECT_FALSE(isNonBlocking(sock.fd()));
}

TEST_F(OsaSockets, UdpOutMayBroadcastOnRequest)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    sock.allowUdpBroadcast = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(socketOption(sock.fd(), SO_BROADCAST), 1);
}

TEST_F(OsaSockets, UdpOutByHostNameIsRefused)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    strcpy(sock.txAddr.host, "127.0.0.1");
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); }),
              depth64k + "T1: Opening UDP transmit socket on port 7004\n" +
                  "ERROR: osaSockOpen()-#:UDP transmit socket by hostname not supported yet\n" + closeCall +
                  "T1: Closing transmit UDP socket on port 7004\n");
    EXPECT_EQ(sock.open, 0);
    EXPECT_EQ(sock.dataOpen, 0);
}

TEST_F(OsaSockets, TcpClientOpensWithoutConnecting)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    sock.dataOpen = 1;
    EXPECT_EQ(tracedAt(9, [&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }),
              depth64k + "T1: Opening TCP client socket on port 7004\n");
    EXPECT_THAT(systemCalls.sockets, ElementsAre(SocketCall{AF_INET, SOCK_STREAM, IPPROTO_TCP}));
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_TRUE(isNonBlocking(sock.fd()));
    EXPECT_EQ(systemCalls.connect.calls, 0);
}

TEST_F(OsaSockets, TcpClientInBlockingModeSaysSo)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    sock.blocking = 1;
    EXPECT_EQ(printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }), "T0: Opening socket in blocking mode\n");
    EXPECT_FALSE(isNonBlocking(sock.fd()));
}

TEST_F(OsaSockets, TcpClientResolvesItsHost)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    strcpy(sock.txAddr.host, "127.0.0.2");
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_THAT(sock.txAddr.ip, ElementsAre(127, 0, 0, 2));
}

TEST_F(OsaSockets, TcpClientWithAHostThatDoesNotResolveIsClosed)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    strcpy(sock.txAddr.host, "nowhere");
    systemCalls.resolverFindsNothing = true;
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); }),
              depth64k + "T1: Opening TCP client socket on port 7004\n" +
                  "ERROR: osaSockOpen()-#:Unable to resolve host name\n" + closeCall +
                  "T1: Closing socket on port 8500\n");
    EXPECT_EQ(sock.open, 0);
    systemCalls.resolverFindsNothing = false;
    strcpy(sock.txAddr.host, "127.0.0.1");
    EXPECT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(sock.id.index, 1U);
}

TEST_F(OsaSockets, SingleServerListens)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    EXPECT_EQ(tracedAt(9, [&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }),
              depth64k + "T1: Opening TCP server socket on port 8500\n");
    EXPECT_THAT(systemCalls.sockets, ElementsAre(SocketCall{AF_INET, SOCK_STREAM, IPPROTO_TCP}));
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_EQ(sock.fd(), -1);
    EXPECT_EQ(ownAddress(sock.listenFd()).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ownAddress(sock.listenFd()).sin_port, htons(8500));
    EXPECT_TRUE(isNonBlocking(sock.listenFd()));
    EXPECT_THAT(systemCalls.backlogs, ElementsAre(1));
}

TEST_F(OsaSockets, SingleServerAsksForAddressReuseWithoutAValue)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    ASSERT_EQ(systemCalls.options.size(), 1U);
    EXPECT_EQ(systemCalls.options[0].level, SOL_SOCKET);
    EXPECT_EQ(systemCalls.options[0].name, SO_REUSEADDR);
    EXPECT_EQ(systemCalls.options[0].value, nullptr);
    EXPECT_EQ(systemCalls.options[0].numBytes, 0U);
    EXPECT_EQ(socketOption(sock.listenFd(), SO_REUSEADDR), 0); // not in force
}

TEST_F(OsaSockets, SingleServerThatEndedAConnectionItselfCanNotRestartAtOnce)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    osaSockClose(&sock);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); }),
              "ERROR: osaSockOpen()-#:Unable to bind TCP connection to port 8500 (Address already in use)\n");
    EXPECT_EQ(sock.errorCode, EADDRINUSE);
}

TEST_F(OsaSockets, SingleServerStaysBlockingOnRequestWithoutALine)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    sock.blocking = 1;
    EXPECT_EQ(printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }), "");
    EXPECT_FALSE(isNonBlocking(sock.listenFd()));
}

namespace
{

/** A step of opening that the system refuses. */
struct Refusal {
    const char* name;
    sockType type;
    StandIn System::*call;
    int error;
    int errorCode;           ///< afterwards; 99 is what it was before
    const char* printed;     ///< without the opening lines
    const char* closingLine; ///< at trace level 5, after the call itself
};

void PrintTo(const Refusal& refusal, std::ostream* out)
{
    *out << refusal.name;
}

class OsaSocketsRefused : public OsaSockets, public testing::WithParamInterface<Refusal>
{
};

} // namespace

TEST_P(OsaSocketsRefused, HoldsNothingAndOpensAgain)
{
    const Refusal& refusal = GetParam();
    OwnSocket sock(refusal.type);
    sock.errorCode = 99;
    const int before = numDescriptors();
    (systemCalls.*refusal.call).fail(refusal.error);
    const std::string printed = tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); });
    EXPECT_THAT(printed, testing::EndsWith(std::string("\nERROR: osaSockOpen()-#:") + refusal.printed + closeCall +
                                           refusal.closingLine));
    EXPECT_EQ(sock.errorCode, refusal.errorCode);
    EXPECT_EQ(sock.open, 0);
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_EQ(sock.id.index, 1U);
    EXPECT_EQ(numDescriptors(), before);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(sock.id.index, 1U);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(EachStep, OsaSocketsRefused, testing::Values(
    Refusal{"UdpInSocket", SOCKTYPE_UDP_IN, &System::socket, EMFILE, -1, "Unable to open socket (-1)\n", ""},
    Refusal{"UdpInBind", SOCKTYPE_UDP_IN, &System::bind, EADDRINUSE, 99, "Address already in use\n", "T1: Closing receive UDP socket on port 8500\n"},
    Refusal{"UdpOutSocket", SOCKTYPE_UDP_OUT, &System::socket, EMFILE, -1, "Unable to open socket (-1)\n", ""},
    Refusal{"ClientSocket", SOCKTYPE_TCP_CLIENT, &System::socket, EMFILE, EMFILE, "Unable to open socket (24)\n", ""},
    Refusal{"ServerSocket", SOCKTYPE_TCP_SINGLE_SERVER, &System::socket, EMFILE, EMFILE, "Unable to open socket (Too many open files)\n", ""},
    Refusal{"ServerBind", SOCKTYPE_TCP_SINGLE_SERVER, &System::bind, EACCES, EACCES, "Unable to bind TCP connection to port 8500 (Permission denied)\n", "T1: Closing single TCP server socket on port 8500\nT1: Closing single TCP data socket on port 8500\n"},
    Refusal{"ServerListen", SOCKTYPE_TCP_SINGLE_SERVER, &System::listen, EADDRINUSE, 99, "TCP listen error: Address already in use\n", "T1: Closing single TCP server socket on port 8500\nT1: Closing single TCP data socket on port 8500\n"}),
    [](const auto& tested) { return std::string(tested.param.name); });
// clang-format on

// ---- closing

TEST_F(OsaSockets, ClosingTracesByType)
{
    const auto closingLines = [](sockType type) {
        OwnSocket sock(type);
        EXPECT_EQ(osaSockOpen(&sock), OSA_OK);
        std::string printed = tracedAt(5, [&] { EXPECT_EQ(osaSockClose(&sock), OSA_OK); });
        EXPECT_EQ(sock.open, 0);
        EXPECT_EQ(sock.dataOpen, 0);
        return printed;
    };
    EXPECT_EQ(closingLines(SOCKTYPE_UDP_IN), closeCall + "T1: Closing receive UDP socket on port 8500\n");
    EXPECT_EQ(closingLines(SOCKTYPE_UDP_OUT), closeCall + "T1: Closing transmit UDP socket on port 7004\n");
    EXPECT_EQ(closingLines(SOCKTYPE_TCP_CLIENT), closeCall + "T1: Closing socket on port 8500\n");
    EXPECT_EQ(closingLines(SOCKTYPE_TCP_SINGLE_SERVER), closeCall +
                                                            "T1: Closing single TCP server socket on port 8500\n"
                                                            "T1: Closing single TCP data socket on port 8500\n");
}

TEST_F(OsaSockets, ClosingAnObjectThatWasNeverOpenedDoesNothing)
{
    sockObject sock{};
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockClose(&sock), OSA_OK); }), "");
    sock.id.index = 12;
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockClose(&sock), OSA_OK); }), "");
}

TEST_F(OsaSockets, ClosingKeepsTheIndexSoASecondCloseReachesTheSlotsNextUser)
{
    OwnSocket first(SOCKTYPE_UDP_OUT);
    ASSERT_EQ(osaSockOpen(&first), OSA_OK);
    ASSERT_EQ(osaSockClose(&first), OSA_OK);
    EXPECT_EQ(first.id.index, 1U);
    OwnSocket next(SOCKTYPE_UDP_OUT);
    ASSERT_EQ(osaSockOpen(&next), OSA_OK);
    ASSERT_EQ(next.id.index, 1U);
    const Descriptor held(next.fd());
    EXPECT_EQ(osaSockClose(&first), OSA_OK);
    EXPECT_GE(fcntl(held.fd, F_GETFD), 0); // its descriptor stays: only the context has gone
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockClose(&next), OSA_EINVAL); }),
              "ERROR: osaSockClose()-#:socket context is NULL\n");
    EXPECT_EQ(next.open, 1);
    next.open = 0;
}

TEST_F(OsaSockets, DataSocketCloseKeepsListening)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    EXPECT_EQ(tracedAt(1, [&] { EXPECT_EQ(osaTcpDataSockClose(&sock), OSA_OK); }),
              "T1: Closing single TCP data socket on port 8500\n");
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_EQ(sock.open, 1);
    EXPECT_EQ(sock.fd(), -1);
    waitFor(peer.fd, POLLRDHUP);
    Peer next;
    acceptFor(sock, next);
    EXPECT_EQ(sock.tcpConnectionCount, 2U);
    EXPECT_EQ(osaTcpDataSockClose(&sock), OSA_OK);
    const int before = numDescriptors();
    EXPECT_EQ(osaTcpDataSockClose(&sock), OSA_OK); // closes no descriptor twice
    EXPECT_EQ(numDescriptors(), before);
}

TEST_F(OsaSockets, DataSocketCloseLeavesOtherTypesAlone)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaTcpDataSockClose(&sock), OSA_OK); }), "");
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_GE(fcntl(sock.fd(), F_GETFD), 0);
}

// ---- connecting

TEST_F(OsaSockets, ConnectOnAServerAnswersOkAndDoesNothing)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_OK); }), "");
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_OK); }), "");
    EXPECT_EQ(systemCalls.connect.calls, 0);
    EXPECT_EQ(sock.dataOpen, 0);
}

TEST_F(OsaSockets, ConnectOnASocketThatIsNotOpenIsAnError)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_ERROR); }), "T0: socket not open\n");
}

TEST_F(OsaSockets, ImmediateConnectionAnswersSockErrorWithDataOpen)
{
    Listener listener(theirPort);
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    sock.blocking = 1;
    printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); });
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_SOCK_ERROR); }),
              "T0: TCP client is now connected\n");
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(sock.open, 1);
    const Descriptor theirs(listener.take());
    char hello[] = "hello";
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), 5);
    EXPECT_EQ(received(theirs.fd), "hello");
}

TEST_F(OsaSockets, ConnectionInProgressIsFollowedByLaterCalls)
{
    Listener listener(theirPort);
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    sock.dataOpen = 7;
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS); }),
              "T9: Socket connection in progress\n");
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_EQ(sock.errorCode, EINPROGRESS);
    systemCalls.select.answer(0);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS); }),
              "T9: Socket connection in progress (select)\n");
    EXPECT_EQ(sock.dataOpen, 0);
    systemCalls.select.fail(EBADF);
    EXPECT_EQ(tracedAt(8, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS); }), "");
    waitFor(sock.fd(), POLLOUT);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_OK); }),
              "T0: TCP client is now connected (select)\n");
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(systemCalls.connect.calls, 1);
    ASSERT_EQ(systemCalls.selects.size(), 3U);
    for (const SelectCall& call : systemCalls.selects) {
        EXPECT_EQ(call.numDescriptors, sock.fd() + 1);
        EXPECT_TRUE(call.toWrite);
        EXPECT_FALSE(call.toRead);
        EXPECT_TRUE(call.atOnce);
    }
    const Descriptor theirs(listener.take());
}

TEST_F(OsaSockets, ProgressIsSilentBelowLevelNine)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    systemCalls.connect.fail(EINPROGRESS);
    EXPECT_EQ(tracedAt(8, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS); }), "");
}

TEST_F(OsaSockets, ImmediateRefusalClosesTheSocket)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    sock.blocking = 1;
    printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); });
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockConnect(&sock), OSA_SOCK_ERROR); }),
              "T0: Unable to connect TCP client\n" + closeCall + "T1: Closing socket on port 8500\n");
    EXPECT_EQ(sock.errorCode, ECONNREFUSED);
    EXPECT_EQ(sock.open, 0);
    EXPECT_EQ(sock.dataOpen, 0);
}

TEST_F(OsaSockets, AReopenedClientConnectsAnew)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    systemCalls.connect.fail(EINPROGRESS);
    EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS);
    osaSockClose(&sock);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    systemCalls.connect.fail(EINPROGRESS);
    EXPECT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS);
    EXPECT_EQ(systemCalls.connect.calls, 2);
}

TEST_F(OsaSockets, ALaterRefusalCountsAsConnectedAndShowsOnTheFirstWrite)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    ASSERT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS);
    waitFor(sock.fd(), POLLOUT);
    printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_OK); });
    EXPECT_EQ(sock.dataOpen, 1);
    char hello[] = "hello";
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
    EXPECT_EQ(sock.errorCode, ECONNREFUSED);
}

TEST_F(OsaSockets, ALaterRefusalReadsAsNothingAndThenAsLost)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    ASSERT_EQ(osaSockConnect(&sock), OSA_IN_PROGRESS);
    waitFor(sock.fd(), POLLOUT);
    printedBy([&] { EXPECT_EQ(osaSockConnect(&sock), OSA_OK); });
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_EQ(osaSockPeek(&sock), OSA_CONNECTION_LOST);
}

// ---- datagrams in

TEST_F(OsaSockets, PeekTellsADatagramAndReadTakesIt)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_EQ(sock.errorCode, -1);
    DatagramPeer peer;
    peer.say("hello", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockPeek(&sock), 5);
    EXPECT_EQ(sock.errorCode, 5);
    EXPECT_EQ(osaSockPeek(&sock), 5);
    EXPECT_EQ(tracedAt(6, [&] { EXPECT_EQ(readText(sock), "hello"); }), "T6: Read 5 bytes from socket (0 left)\n");
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(readText(sock), ""); }), "");
}

TEST_F(OsaSockets, OneDatagramIsHeldAtATime)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    peer.say("one", ourPort);
    peer.say("second", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockPeek(&sock), 3);
    EXPECT_EQ(osaSockPeek(&sock), 3);
    EXPECT_EQ(systemCalls.reads.size(), 1U);
    EXPECT_EQ(systemCalls.reads[0].numBytes, 65537U);
    EXPECT_EQ(readText(sock, 3), "one"); // and stops at its length, the next datagram in the kernel
    EXPECT_EQ(systemCalls.reads.size(), 1U);
    EXPECT_EQ(readText(sock), "second");
}

TEST_F(OsaSockets, DatagramsRunTogetherInALongRead)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    peer.say("one", ourPort);
    peer.say("second", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(tracedAt(6, [&] { EXPECT_EQ(readText(sock, 5), "onese"); }), "T6: Read 5 bytes from socket (4 left)\n");
    EXPECT_EQ(osaSockPeek(&sock), 4); // the rest of a datagram stays for the next read
    EXPECT_EQ(readText(sock), "cond");
}

TEST_F(OsaSockets, ADatagramOfTheRingsSizeFitsAndOneByteMoreIsOver)
{
    OwnSocket sock(SOCKTYPE_UDP_IN, 10);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    peer.say("0123456789", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockPeek(&sock), 10);
    EXPECT_EQ(readText(sock, 4), "0123");
    EXPECT_EQ(readText(sock), "456789");
    peer.say("0123456789X", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockPeek(&sock), OSA_PACKET_BUFFER_OVER);
    EXPECT_EQ(sock.errorCode, 11);
    EXPECT_EQ(osaSockPeek(&sock), 0); // it is gone
    peer.say("0123456789X", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(readText(sock), "status -7");
    peer.say("next", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(readText(sock), "next");
}

TEST_F(OsaSockets, AnOverlongDatagramAfterDataShowsInTheNextRead)
{
    OwnSocket sock(SOCKTYPE_UDP_IN, 10);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    peer.say("one", ourPort);
    peer.say("0123456789X", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(readText(sock), "one");
    EXPECT_EQ(readText(sock), ""); // the datagram that was over has gone with its status
}

TEST_F(OsaSockets, ADatagramReadBelowMinusOneIsASocketError)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    systemCalls.read.answer(-2);
    EXPECT_EQ(osaSockPeek(&sock), OSA_SOCK_ERROR);
    EXPECT_EQ(sock.errorCode, -2);
}

TEST_F(OsaSockets, AnEmptyDatagramIsNothing)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    peer.say("", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_EQ(sock.errorCode, 0);
}

TEST_F(OsaSockets, PeekAndReadOnASenderAreRefused)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), OSA_EINVAL); }),
              "ERROR: osaSockPeek()-#:invalid socket type\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(readText(sock), "status -5"); }),
              "ERROR: osaSockPeek()-#:invalid socket type\n");
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockFlush(&sock), OSA_ERROR); }),
              "ERROR: osaSockPeek()-#:invalid socket type\n");
}

// ---- the server and its peers

TEST_F(OsaSockets, ServerWithoutAPeerHasNothing)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "");
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(readText(sock), ""); }), "T6: Read 0 bytes from socket (0 left)\n");
    char hello[] = "hello";
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
}

TEST_F(OsaSockets, ANewPeerIsAnnouncedAtEveryLevel)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    waitFor(sock.listenFd(), POLLIN);
    const std::string printed = printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); });
    EXPECT_EQ(printed, "\nNew TCP connection on file descriptor (" + std::to_string(sock.fd()) +
                           ") from:\n  Host Address: 127.0.0.1 Port: " + std::to_string(peer.port()) + "\n");
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(sock.tcpConnectionCount, 1U);
    EXPECT_TRUE(isNonBlocking(sock.fd()));
}

TEST_F(OsaSockets, ASecondPeerDropsTheFirstAtOnce)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer first;
    acceptFor(sock, first);
    sayTo(sock, first, "half a trans");
    EXPECT_EQ(osaSockPeek(&sock), 12);
    const int firstFd = sock.fd();
    Peer second;
    waitFor(sock.listenFd(), POLLIN);
    const std::string printed = printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); }); // with what the first had sent
    EXPECT_EQ(printed, "\nClosing active TCP connection on " + std::to_string(firstFd) +
                           "\n\nNew TCP connection on file descriptor (" + std::to_string(sock.fd()) +
                           ") from:\n  Host Address: 127.0.0.1 Port: " + std::to_string(second.port()) + "\n");
    waitFor(first.fd, POLLRDHUP);
    EXPECT_EQ(sock.dataOpen, 1);
    EXPECT_EQ(sock.tcpConnectionCount, 2U);
    sayTo(sock, second, "whole");
    EXPECT_EQ(readText(sock), "whole");
}

TEST_F(OsaSockets, APeersBytesAreReadInThePeekThatAcceptsIt)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer first;
    acceptFor(sock, first);
    Peer second;
    waitFor(sock.listenFd(), POLLIN);
    systemCalls.read.answer(-1, EAGAIN);
    systemCalls.reads.clear();
    EXPECT_EQ(quietPeek(sock), 0);
    ASSERT_EQ(systemCalls.reads.size(), 1U);
    EXPECT_EQ(systemCalls.reads[0].fd, sock.fd());
    EXPECT_EQ(systemCalls.reads[0].numBytes, 65535U);
}

TEST_F(OsaSockets, AnAbortedConnectionDropsThePeerAndReadsNothing)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "seen");
    EXPECT_EQ(osaSockPeek(&sock), 4);
    sayTo(sock, peer, "unseen");
    systemCalls.accept.fail(ECONNABORTED);
    systemCalls.reads.clear();
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 4); }), "ERROR: osaSockPeek()-#:TCP connection aborted\n");
    EXPECT_TRUE(systemCalls.reads.empty());
    EXPECT_EQ(sock.fd(), -1);
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_EQ(sock.open, 1);
    systemCalls.accept.fail(ECONNABORTED); // and again without one
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 4); }), "ERROR: osaSockPeek()-#:TCP connection aborted\n");
    EXPECT_EQ(sock.fd(), -1);
}

TEST_F(OsaSockets, AnotherAcceptErrorLeavesThePeerDeafUntilTheNextOne)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "unseen");
    systemCalls.accept.fail(EMFILE);
    systemCalls.reads.clear();
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); }),
              "ERROR: osaSockPeek()-#:Accept error: Too many open files\n");
    EXPECT_EQ(sock.dataOpen, 0);
    EXPECT_GT(sock.fd(), 0);
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_TRUE(systemCalls.reads.empty());
    const std::string closing = "\nClosing active TCP connection on " + std::to_string(sock.fd()) + "\n";
    Peer next;
    waitFor(sock.listenFd(), POLLIN);
    EXPECT_THAT(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), testing::StartsWith(closing));
    EXPECT_EQ(sock.dataOpen, 1);
    waitFor(peer.fd, POLLHUP);
}

TEST_F(OsaSockets, ClosingTheDataSocketOfADeafPeerForgetsItsDescriptor)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    systemCalls.accept.fail(EMFILE);
    quietPeek(sock);
    const Descriptor forgotten(sock.fd());
    EXPECT_EQ(osaTcpDataSockClose(&sock), OSA_OK);
    EXPECT_EQ(sock.fd(), -1);
    EXPECT_GE(fcntl(forgotten.fd, F_GETFD), 0);
}

TEST_F(OsaSockets, APeerOnDescriptorZeroIsNotHeardAndNotClosedByTheNext)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer first;
    waitFor(sock.listenFd(), POLLIN);
    const Descriptor stdinKept(dup(0));
    std::string printed;
    CaptureStdout(); // takes its descriptors while 0 is in use
    close(0);
    osaSockPeek(&sock);
    printed = GetCapturedStdout();
    EXPECT_THAT(printed, HasSubstr("New TCP connection on file descriptor (0) from:\n"));
    EXPECT_EQ(sock.fd(), 0);
    EXPECT_EQ(sock.dataOpen, 1);
    sayTo(sock, first, "unheard");
    EXPECT_EQ(osaSockPeek(&sock), 0);
    Peer second;
    waitFor(sock.listenFd(), POLLIN);
    EXPECT_THAT(printedBy([&] { osaSockPeek(&sock); }), testing::Not(HasSubstr("Closing active")));
    EXPECT_GE(fcntl(0, F_GETFD), 0);
    dup2(stdinKept.fd, 0);
}

// ---- blocking sockets are looked at before they are read

TEST_F(OsaSockets, BlockingServerNeverWaitsInPeek)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    sock.blocking = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(tracedAt(1, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "T1: accept: performSocketRead==false\n");
    EXPECT_EQ(systemCalls.accept.calls, 0);
    ASSERT_EQ(systemCalls.selects.size(), 1U);
    EXPECT_EQ(systemCalls.selects[0].numDescriptors, sock.listenFd() + 1);
    EXPECT_TRUE(systemCalls.selects[0].toRead);
    EXPECT_FALSE(systemCalls.selects[0].toWrite);
    EXPECT_TRUE(systemCalls.selects[0].atOnce);
    Peer peer;
    waitFor(sock.listenFd(), POLLIN);
    const std::string printed = tracedAt(1, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); });
    EXPECT_THAT(printed, testing::StartsWith("T1: accept: performSocketRead==true\n\nNew TCP connection"));
    EXPECT_THAT(printed, testing::EndsWith("\nT1: data: performSocketRead==false\n"));
    EXPECT_FALSE(isNonBlocking(sock.fd()));
    sayTo(sock, peer, "hello");
    EXPECT_EQ(tracedAt(1, [&] { EXPECT_EQ(osaSockPeek(&sock), 5); }),
              "T1: accept: performSocketRead==false\nT1: data: performSocketRead==true\n");
    EXPECT_EQ(systemCalls.selects.back().numDescriptors, sock.fd() + 1);
    EXPECT_TRUE(systemCalls.selects.back().toRead);
    EXPECT_TRUE(systemCalls.selects.back().atOnce);
    EXPECT_EQ(tracedAt(0, [&] { EXPECT_EQ(osaSockPeek(&sock), 5); }), "");
    EXPECT_EQ(readText(sock), "hello");
}

TEST_F(OsaSockets, BlockingUdpInNeverWaitsInPeekReadOrFlush)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    sock.blocking = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "");
    EXPECT_EQ(sock.errorCode, -1);
    EXPECT_TRUE(systemCalls.reads.empty());
    ASSERT_EQ(systemCalls.selects.size(), 1U);
    EXPECT_EQ(systemCalls.selects[0].numDescriptors, sock.fd() + 1);
    EXPECT_TRUE(systemCalls.selects[0].toRead);
    EXPECT_FALSE(systemCalls.selects[0].toWrite);
    EXPECT_TRUE(systemCalls.selects[0].atOnce);
    DatagramPeer peer;
    peer.say("hello", ourPort);
    waitFor(sock.fd(), POLLIN);
    systemCalls.select.fail(EINTR);
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_EQ(readText(sock), "hello"); // and looks for the next one without waiting
    EXPECT_EQ(systemCalls.reads.size(), 1U);
    peer.say("gone", ourPort);
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockFlush(&sock), OSA_OK);
    EXPECT_EQ(osaSockPeek(&sock), 0);
}

TEST_F(OsaSockets, AFailedSelectForAcceptCountsAsNothingWaiting)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    sock.blocking = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    systemCalls.select.fail(EINTR);
    EXPECT_EQ(tracedAt(1, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "T1: accept: performSocketRead==false\n");
    EXPECT_EQ(systemCalls.accept.calls, 0);
}

TEST_F(OsaSockets, AFailedSelectForDataIsReportedAndNothingIsRead)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    sock.blocking = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "hello");
    systemCalls.select.answer(0); // for accept
    systemCalls.select.fail(EINTR);
    systemCalls.reads.clear();
    EXPECT_THAT(tracedAt(1, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }),
                testing::MatchesRegex("T1: accept: performSocketRead==false\n"
                                      "T0: audioLibrary/osAbstraction/osAbstractionSocketsLinux\\.cpp [0-9]+: OHCRAP! "
                                      "Select failed: -1\nT1: data: performSocketRead==false\n"));
    EXPECT_TRUE(systemCalls.reads.empty());
    EXPECT_EQ(osaSockPeek(&sock), 5);
}

TEST_F(OsaSockets, DescriptorsBeyondTheReachOfSelectAreServedByPoll)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GE(limit.rlim_max, 1200U);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<int> others;
    do {
        others.push_back(dup(2));
    } while (others.back() >= 0 && others.back() < FD_SETSIZE);
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    sock.blocking = 1;
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    ASSERT_GT(sock.listenFd(), FD_SETSIZE);
    EXPECT_EQ(osaSockPeek(&sock), 0);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "hello");
    EXPECT_EQ(readText(sock), "hello");
    EXPECT_TRUE(systemCalls.selects.empty());
    EXPECT_GT(systemCalls.poll.calls, 0);
    {
        Listener listener(theirPort);
        OwnSocket client(SOCKTYPE_TCP_CLIENT);
        ASSERT_EQ(osaSockOpen(&client), OSA_OK);
        ASSERT_EQ(osaSockConnect(&client), OSA_IN_PROGRESS);
        systemCalls.poll.answer(0);
        EXPECT_EQ(osaSockConnect(&client), OSA_IN_PROGRESS);
        waitFor(client.fd(), POLLOUT);
        printedBy([&] { EXPECT_EQ(osaSockConnect(&client), OSA_OK); });
    }
    const int fd = sock.fd(); // a descriptor closed behind our back: an error, as select says
    close(fd);
    EXPECT_THAT(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), HasSubstr("OHCRAP! Select failed: -1\n"));
    osaSockClose(&sock);
    for (const int other : others) {
        close(other);
    }
}

// ---- the ring

TEST_F(OsaSockets, TheRingFillsToAllButItsLastByteAndWraps)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER, 8);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    const auto asked = [](size_t call) { return systemCalls.reads.at(call).numBytes; };
    sayTo(sock, peer, "ABCDEFGHIJKLMNO");
    systemCalls.reads.clear();
    // [RW......] free 8, less the last byte
    EXPECT_EQ(osaSockPeek(&sock), 7);
    ASSERT_EQ(systemCalls.reads.size(), 1U);
    EXPECT_EQ(asked(0), 7U);
    // [ABCDEFGW] one byte free, which stays free: no read at all
    EXPECT_EQ(osaSockPeek(&sock), 7);
    EXPECT_EQ(systemCalls.reads.size(), 1U);
    // takes ABC, then looks again: [...DEFGW] free run to the end 1
    EXPECT_EQ(readText(sock, 3), "ABC");
    ASSERT_EQ(systemCalls.reads.size(), 2U);
    EXPECT_EQ(asked(1), 1U);
    // [W..DEFGH] 3 free in front of the read position, less the last; only DEFGH lies in one piece
    EXPECT_EQ(osaSockPeek(&sock), 5);
    ASSERT_EQ(systemCalls.reads.size(), 3U);
    EXPECT_EQ(asked(2), 2U);
    // [IJWDEFGH] full
    EXPECT_EQ(osaSockPeek(&sock), 5);
    EXPECT_EQ(systemCalls.reads.size(), 3U);
    // takes DEFGH; [IJW.....] free run 6, less the last; takes IJKLMNO; [.......W] free run 1, nothing comes
    EXPECT_EQ(tracedAt(6, [&] { EXPECT_EQ(readText(sock, 100), "DEFGHIJKLMNO"); }),
              "T6: Read 12 bytes from socket (0 left)\n");
    ASSERT_EQ(systemCalls.reads.size(), 5U);
    EXPECT_EQ(asked(3), 5U);
    EXPECT_EQ(asked(4), 1U);
}

TEST_F(OsaSockets, ARingOfOneByteReadsNothing)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER, 1);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "A");
    systemCalls.reads.clear();
    EXPECT_EQ(osaSockPeek(&sock), 0);
    EXPECT_TRUE(systemCalls.reads.empty());
}

TEST_F(OsaSockets, ALongStreamComesThroughASmallRingUnchanged)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER, 13);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    std::string sent;
    for (int i = 0; i < 5000; i++) {
        sent += static_cast<char>('a' + i * 7 % 26);
    }
    sayTo(sock, peer, sent);
    std::string came;
    for (unsigned int length = 1; came.size() < sent.size() && length < 10000; length++) {
        const std::string part = readText(sock, length % 17 + 1);
        ASSERT_NE(part, "");
        came += part;
    }
    EXPECT_EQ(came, sent);
}

TEST_F(OsaSockets, ReadTracesABytesDumpAtLevelNine)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER, 100);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "AB");
    EXPECT_THAT(tracedAt(9, [&] { EXPECT_EQ(osaSockPeek(&sock), 2); }),
                testing::MatchesRegex("T9: Read 2 byes from TCP/IP socket \\(0/100\\)\n"
                                      "[0-9a-f]{8}:  41 42                                           \\| AB"
                                      "              \n"));
    sayTo(sock, peer, "C");
    EXPECT_THAT(tracedAt(9, [&] { EXPECT_EQ(osaSockPeek(&sock), 3); }),
                testing::MatchesRegex("T9: Read 1 byes from TCP/IP socket \\(2/100\\)\n"
                                      "[0-9a-f]{8}:  43                                              \\| C"
                                      "               \n"));
    sayTo(sock, peer, "D");
    EXPECT_EQ(tracedAt(8, [&] { EXPECT_EQ(osaSockPeek(&sock), 4); }), "");
}

TEST_F(OsaSockets, ALostConnectionShowsAfterItsData)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    EXPECT_EQ(readText(sock), ""); // nothing waiting
    sayTo(sock, peer, "last words");
    peer.shut();
    waitFor(sock.fd(), POLLRDHUP);
    EXPECT_EQ(tracedAt(6, [&] { EXPECT_EQ(readText(sock), "last words"); }), ""); // ended by the loss: no line
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(readText(sock), "status -2"); }), "T9: TCP disconnect\n");
    EXPECT_EQ(tracedAt(8, [&] { EXPECT_EQ(osaSockPeek(&sock), OSA_CONNECTION_LOST); }), "");
    EXPECT_EQ(sock.dataOpen, 1); // until the owner closes it
    EXPECT_GT(sock.fd(), 0);
    osaTcpDataSockClose(&sock);
    EXPECT_EQ(osaSockPeek(&sock), 0);
}

TEST_F(OsaSockets, AFailedReadIsNoData)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    systemCalls.read.fail(ECONNRESET);
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "");
    EXPECT_EQ(sock.dataOpen, 1);
}

TEST_F(OsaSockets, AnOddReadIsReported)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    systemCalls.read.answer(-3, EIO);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockPeek(&sock), 0); }), "T0: TCP read error (-3) Input/output error");
}

TEST_F(OsaSockets, ReadOfLengthZeroTakesNothing)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "hello");
    EXPECT_EQ(tracedAt(6, [&] { EXPECT_EQ(osaSockRead(&sock, nullptr, 0), 0); }),
              "T6: Read 0 bytes from socket (5 left)\n");
    EXPECT_EQ(readText(sock), "hello");
    OwnSocket datagrams(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&datagrams), OSA_OK);
    systemCalls.reads.clear();
    EXPECT_EQ(osaSockRead(&datagrams, nullptr, 0), 0);
    EXPECT_TRUE(systemCalls.reads.empty());
}

TEST_F(OsaSockets, ANegativeLengthReadsAllThereIs)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "hello");
    EXPECT_EQ(readText(sock, static_cast<unsigned int>(-1)), "hello");
    sayTo(sock, peer, "again");
    EXPECT_EQ(readText(sock, static_cast<unsigned int>(INT_MIN)), "again");
}

TEST_F(OsaSockets, RxFlushForgetsTheRingAndLeavesTheKernelsData)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "gone");
    EXPECT_EQ(osaSockPeek(&sock), 4);
    sayTo(sock, peer, "kept");
    EXPECT_EQ(osaSockRxFlush(&sock), OSA_OK);
    EXPECT_EQ(readText(sock), "kept");
}

TEST_F(OsaSockets, FlushForgetsTheKernelsDataToo)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER, 8);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    sayTo(sock, peer, "gone");
    EXPECT_EQ(osaSockPeek(&sock), 4);
    sayTo(sock, peer, std::string(5000, 'x'));
    EXPECT_EQ(osaSockFlush(&sock), OSA_OK);
    EXPECT_EQ(readText(sock), "");
    sayTo(sock, peer, "kept");
    EXPECT_EQ(readText(sock), "kept");
    sayTo(sock, peer, "gone");
    EXPECT_EQ(osaSockPeek(&sock), 4);
    peer.shut();
    waitFor(sock.fd(), POLLRDHUP);
    EXPECT_EQ(osaSockFlush(&sock), OSA_ERROR);
    osaTcpDataSockClose(&sock);
    EXPECT_EQ(osaSockPeek(&sock), 0); // what the ring held has gone, though reading ended in an error
}

TEST_F(OsaSockets, FlushDropsEveryDatagramThatWaits)
{
    OwnSocket sock(SOCKTYPE_UDP_IN);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    DatagramPeer peer;
    for (int i = 0; i < 20; i++) {
        peer.say(std::string(100, 'x'), ourPort);
    }
    waitFor(sock.fd(), POLLIN);
    EXPECT_EQ(osaSockFlush(&sock), OSA_OK);
    EXPECT_EQ(osaSockPeek(&sock), 0);
}

// ---- writing

TEST_F(OsaSockets, WritingNeedsAnOpenSocketWithData)
{
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    char hello[] = "hello";
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR); }), "");
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR); }), "");
    EXPECT_EQ(systemCalls.sendto.calls, 0);
}

TEST_F(OsaSockets, ADatagramGoesToItsDestination)
{
    DatagramPeer peer(theirPort);
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    char hello[] = "hello";
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockWrite(&sock, hello, 5), 5); }), "");
    EXPECT_EQ(received(peer.fd), "hello");
    ASSERT_EQ(systemCalls.sends.size(), 1U);
    EXPECT_EQ(systemCalls.sends[0].numAddressBytes, 16U);
    EXPECT_EQ(systemCalls.sends[0].dest.sin_family, AF_INET);
    EXPECT_EQ(systemCalls.sends[0].dest.sin_port, htons(theirPort));
    EXPECT_EQ(systemCalls.sends[0].dest.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(OsaSockets, AServerAnswersItsPeer)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    char hello[] = "hello";
    EXPECT_EQ(tracedAt(9, [&] { EXPECT_EQ(osaSockWrite(&sock, hello, 5), 5); }), "");
    EXPECT_EQ(received(peer.fd), "hello");
    EXPECT_EQ(systemCalls.sends.at(0).dest.sin_family, 0); // empty, and the connection does not look at it
    EXPECT_EQ(systemCalls.sends.at(0).flags, MSG_NOSIGNAL);
}

TEST_F(OsaSockets, AClientsPacketIsDumpedAtLevelSix)
{
    Listener listener(theirPort);
    OwnSocket sock(SOCKTYPE_TCP_CLIENT);
    sock.blocking = 1;
    printedBy([&] {
        ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
        osaSockConnect(&sock);
    });
    const Descriptor theirs(listener.take());
    char hello[] = "AB";
    EXPECT_THAT(tracedAt(6, [&] { EXPECT_EQ(osaSockWrite(&sock, hello, 2), 2); }),
                testing::MatchesRegex("TCP Send packet:\n[0-9a-f]{8}:  41 42                                           "
                                      "\\| AB              \n"));
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockWrite(&sock, hello, 2), 2); }), "");
}

TEST_F(OsaSockets, ANegativeDescriptorSwallowsWhatIsWritten)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    sock.dataOpen = 1;
    char hello[] = "hello";
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), 5);
    EXPECT_EQ(systemCalls.sendto.calls, 0);
    sock.dataOpen = 0;
}

TEST_F(OsaSockets, AShortWriteIsAFailure)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    char hello[] = "hello";
    systemCalls.sendto.answer(4, ENOSPC);
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
    EXPECT_EQ(sock.errorCode, ENOSPC);
    systemCalls.sendto.fail(EAGAIN);
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
    EXPECT_EQ(sock.errorCode, EAGAIN);
    EXPECT_EQ(sock.open, 1);
}

TEST_F(OsaSockets, APeerThatHasGoneDoesNotEndTheProcess)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    peer.reset();
    waitFor(sock.fd(), POLLHUP);
    char hello[] = "hello";
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
    EXPECT_EQ(sock.errorCode, ECONNRESET);
    EXPECT_EQ(osaSockWrite(&sock, hello, 5), OSA_ERROR);
    EXPECT_EQ(sock.errorCode, EPIPE);
}

TEST_F(OsaSockets, APeerThatNeverReadsMakesTheWriteFailNotWait)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    Peer peer;
    acceptFor(sock, peer);
    std::vector<char> megabytes(64 << 20);
    EXPECT_EQ(osaSockWrite(&sock, megabytes.data(), static_cast<unsigned int>(megabytes.size())), OSA_ERROR);
}

// ---- ARP entries

namespace
{

/** A sender to 10.0.0.2 with a hardware address of its own. */
void giveMac(OwnSocket& sock)
{
    const unsigned char ip[4] = {10, 0, 0, 2};
    const unsigned char mac[6] = {2, 0, 0, 0, 0, 5};
    memcpy(sock.txAddr.ip, ip, sizeof ip);
    memcpy(sock.txAddr.mac, mac, sizeof mac);
}

arpreq entryWith(int flags, unsigned char lastByte)
{
    arpreq entry{};
    entry.arp_flags = flags;
    entry.arp_ha.sa_data[5] = static_cast<char>(lastByte);
    return entry;
}

void expectDestination(const arpreq& entry)
{
    sockaddr_in dest{};
    memcpy(&dest, &entry.arp_pa, sizeof dest);
    EXPECT_EQ(dest.sin_family, AF_INET);
    EXPECT_EQ(dest.sin_port, htons(theirPort));
    EXPECT_EQ(dest.sin_addr.s_addr, htonl(0x0a000002));
    EXPECT_STREQ(entry.arp_dev, "eth0");
}

} // namespace

TEST_F(OsaSockets, AMacAddressMakesAPermanentEntryThatClosingRemoves)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    giveMac(sock);
    systemCalls.ioctl.answer(0);
    EXPECT_EQ(printedBy([&] { ASSERT_EQ(osaSockOpen(&sock), OSA_OK); }), "");
    ASSERT_EQ(systemCalls.arps.size(), 1U); // a fresh context has no old entry to remove
    const ArpCall added = systemCalls.arps[0];
    EXPECT_EQ(added.request, static_cast<unsigned long>(SIOCSARP));
    expectDestination(added.entry);
    EXPECT_EQ(added.entry.arp_ha.sa_family, 0);
    EXPECT_EQ(memcmp(added.entry.arp_ha.sa_data, sock.txAddr.mac, 6), 0);
    EXPECT_EQ(added.entry.arp_flags, 4);
    systemCalls.foundArp = entryWith(ATF_PERM | ATF_COM, 5);
    systemCalls.ioctl.answer(0);
    EXPECT_EQ(osaSockClose(&sock), OSA_OK);
    ASSERT_EQ(systemCalls.arps.size(), 3U);
    EXPECT_EQ(systemCalls.arps[1].request, static_cast<unsigned long>(SIOCGARP));
    expectDestination(systemCalls.arps[1].entry);
    EXPECT_EQ(systemCalls.arps[2].request, static_cast<unsigned long>(SIOCDARP));
    EXPECT_EQ(systemCalls.arps[2].entry.arp_flags, ATF_PERM | ATF_COM); // as found
}

TEST_F(OsaSockets, AnyByteOfTheMacAddressCounts)
{
    for (int byte = 0; byte < 6; byte++) {
        OwnSocket sock(SOCKTYPE_UDP_OUT);
        sock.txAddr.mac[byte] = 1;
        systemCalls.arps.clear();
        systemCalls.ioctl.answer(0);
        ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
        EXPECT_EQ(systemCalls.arps.size(), 1U);
    }
}

TEST_F(OsaSockets, ARefusedEntryClosesTheSocketAndIsNotRemoved)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    giveMac(sock);
    systemCalls.ioctl.fail(EPERM);
    EXPECT_EQ(tracedAt(5, [&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); }),
              depth64k + "T1: Opening UDP transmit socket on port 7004\n" +
                  "ERROR: osaSockOpen()-#:Unable to assign MAC address: Operation not permitted" + closeCall +
                  "T1: Closing transmit UDP socket on port 7004\n");
    EXPECT_EQ(sock.open, 0);
    EXPECT_EQ(systemCalls.arps.size(), 1U);
}

TEST_F(OsaSockets, TheMacAddressOfAnEntryIsToldByItsFlags)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    giveMac(sock);
    memset(sock.txAddr.mac, 0, sizeof sock.txAddr.mac);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    const auto statusFor = [&](int flags, unsigned char lastByte) {
        systemCalls.foundArp = entryWith(flags, lastByte);
        char mac[6] = {9, 9, 9, 9, 9, 9};
        const osaStatus status = osaSockDestMacAddress(&sock, mac);
        EXPECT_THAT(mac, ElementsAre(0, 0, 0, 0, 0, lastByte)); // in either case
        EXPECT_EQ(osaSockDestMacAddress(&sock, nullptr), status);
        return status;
    };
    EXPECT_EQ(statusFor(ATF_COM, 5), OSA_OK);
    EXPECT_EQ(statusFor(ATF_PERM, 5), OSA_OK);
    EXPECT_EQ(statusFor(ATF_COM | ATF_PERM, 5), OSA_OK);
    EXPECT_EQ(statusFor(ATF_COM, 0), OSA_ERROR);
    EXPECT_EQ(statusFor(0, 5), OSA_ERROR);
    EXPECT_EQ(statusFor(ATF_PUBL, 5), OSA_ERROR);
    EXPECT_EQ(systemCalls.arps[0].request, static_cast<unsigned long>(SIOCGARP));
    expectDestination(systemCalls.arps[0].entry);
}

namespace
{

/** The namespace's eth0: one end of a pair of virtual devices, made by the kernel's own tool. */
void makeEth0()
{
    ASSERT_EQ(system("ip link add eth0 type veth peer name far0 && ip addr add 10.0.0.1/24 dev eth0 && "
                     "ip link set far0 up && ip link set eth0 up"),
              0);
}

} // namespace

TEST_F(OsaSockets, TheKernelKnowsTheMacAddressWhileTheSocketIsOpen)
{
    ASSERT_NO_FATAL_FAILURE(makeEth0());
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    giveMac(sock);
    OwnSocket other(SOCKTYPE_UDP_OUT);
    giveMac(other);
    memset(other.txAddr.mac, 0, sizeof other.txAddr.mac);
    ASSERT_EQ(osaSockOpen(&other), OSA_OK);
    char mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(osaSockDestMacAddress(&other, mac), OSA_ERROR);
    EXPECT_THAT(mac, ElementsAre(0, 0, 0, 0, 0, 0));
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    EXPECT_EQ(osaSockDestMacAddress(&other, mac), OSA_OK);
    EXPECT_THAT(mac, ElementsAre(2, 0, 0, 0, 0, 5));
    osaSockClose(&sock);
    EXPECT_EQ(osaSockDestMacAddress(&other, mac), OSA_ERROR);
}

TEST_F(OsaSockets, WithoutTheDeviceNoMacAddressCanBeAssigned)
{
    OwnSocket sock(SOCKTYPE_UDP_OUT);
    giveMac(sock);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(osaSockOpen(&sock), OSA_SOCK_ERROR); }),
              "ERROR: osaSockOpen()-#:Unable to assign MAC address: No such device");
}

TEST_F(OsaSockets, AServerHasNoDestinationToLookUp)
{
    OwnSocket sock(SOCKTYPE_TCP_SINGLE_SERVER);
    ASSERT_EQ(osaSockOpen(&sock), OSA_OK);
    char mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(osaSockDestMacAddress(&sock, mac), OSA_ERROR);
    EXPECT_THAT(mac, ElementsAre(0, 0, 0, 0, 0, 0));
}

// ---- names, byte order, dump

TEST_F(OsaSockets, HostNamesAreResolvedIntoTheAddress)
{
    destAddress addr;
    strcpy(addr.host, "127.1.2.3");
    EXPECT_EQ(osaGetHostByName(&addr), OSA_OK);
    EXPECT_THAT(addr.ip, ElementsAre(127, 1, 2, 3));
    EXPECT_EQ(systemCalls.resolverBufferBytes, 1024U);
}

TEST_F(OsaSockets, AHostThatCanNotBeResolvedLeavesTheAddress)
{
    EXPECT_EQ(osaGetHostByName(nullptr), OSA_ERROR);
    destAddress addr{"", {1, 2, 3, 4}, {}};
    EXPECT_EQ(osaGetHostByName(&addr), OSA_ERROR);
    strcpy(addr.host, "127.1.2.3");
    systemCalls.resolverFindsNothing = true;
    EXPECT_EQ(osaGetHostByName(&addr), OSA_ERROR);
    systemCalls.resolverFindsNothing = false;
    systemCalls.resolverAddressLength = 16;
    EXPECT_EQ(osaGetHostByName(&addr), OSA_ERROR);
    systemCalls.resolverAddressLength.reset();
    systemCalls.resolverFindsNoAddress = true;
    EXPECT_EQ(osaGetHostByName(&addr), OSA_ERROR);
    EXPECT_THAT(addr.ip, ElementsAre(1, 2, 3, 4));
}

TEST_F(OsaSockets, ANameThatFillsItsFieldIsNotReadBeyondIt)
{
    destAddress addr{"", {0x41, 0x41, 0x41, 0x41}, {}};
    memset(addr.host, 'h', sizeof addr.host);
    systemCalls.resolverFindsNothing = true;
    EXPECT_EQ(osaGetHostByName(&addr), OSA_ERROR);
    EXPECT_EQ(systemCalls.resolvedName, std::string(100, 'h'));
}

TEST_F(OsaSockets, ByteSwapsAreUnconditional)
{
    EXPECT_EQ(osaNtohl(0x12345678U), 0x78563412U);
    EXPECT_EQ(osaNtohs(0x1234U), 0x3412U);
}

TEST_F(OsaSockets, HexdumpPrintsOneClosingLineAlways)
{
    char bytes[17] = "0123 !~\x7f\x20xyzabc";
    const auto address = [&](size_t offset) {
        char text[9];
        snprintf(text, sizeof text, "%08x", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(bytes + offset)));
        return std::string(text);
    };
    const std::string full = address(0) + ":  30 31 32 33 20 21 7e 7f 20 78 79 7a 61 62 63 00 | 0123.!~..xyzabc.\n";
    EXPECT_EQ(printedBy([&] { osaHexdump(bytes, 0); }),
              address(0) + ": " + std::string(48, ' ') + " | " + std::string(16, ' ') + "\n");
    EXPECT_EQ(printedBy([&] { osaHexdump(bytes, 16); }), full);
    EXPECT_EQ(printedBy([&] { osaHexdump(bytes, 17); }),
              full + address(16) + ":  00" + std::string(45, ' ') + " | ." + std::string(15, ' ') + "\n");
}

TEST_F(OsaSockets, TheTraceLevelIsReachedThroughItsPointer)
{
    unsigned int other = 1;
    tl = &other;
    OwnSocket sock(SOCKTYPE_UDP_IN);
    EXPECT_EQ(printedBy([&] { osaSockOpen(&sock); }), "T1: Opening UDP receive socket on port 8500\n");
    tl = &osa_trace_level;
}
