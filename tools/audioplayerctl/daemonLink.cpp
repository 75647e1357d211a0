#include "daemonLink.h"

#include "ByteArray.h"
#include "failure.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr uint8_t OP_CODE_SET = 2;
constexpr uint32_t CHANNEL_START = 0x1202;
constexpr uint32_t CHANNEL_STOP = 0x1203;
constexpr uint16_t HEARTBEAT_PORT = 7009;
constexpr int HEARTBEAT_PATIENCE_MS = 2500; ///< two beats may be missed
constexpr uint16_t DATAGRAM_CAPACITY = 16;  ///< an integer is never written up to the last byte

/** A socket that closes itself. */
class Socket
{
public:
    explicit Socket(int descriptor) : fd(descriptor)
    {
        if (fd < 0)
            throw Failure(EXIT_FAILED, std::string("cannot create a socket: ") + strerror(errno));
    }
    ~Socket() { close(fd); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    const int fd;
};

void send(const ControlAddress& address, ByteArray& datagram)
{
    const std::string where = address.host + " port " + std::to_string(address.port);
    addrinfo hints = {};
    hints.ai_family = AF_INET; // the daemon listens on IPv4 only
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
    if (error != 0)
        throw Failure(EXIT_NOT_FOUND, "cannot find " + address.host + ": " + gai_strerror(error));
    Socket socket(::socket(AF_INET, SOCK_DGRAM, 0));
    const int connected = connect(socket.fd, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    if (connected != 0 || !datagram.send(socket.fd, 0))
        throw Failure(EXIT_FAILED, "cannot send to " + where + ": " + strerror(errno));

    // On this machine the refusal of a port that nobody has is there at once.
    char nothing;
    if (recv(socket.fd, &nothing, sizeof(nothing), MSG_DONTWAIT) < 0 && errno == ECONNREFUSED)
        throw Failure(EXIT_DAEMON_DOWN, "nothing listens on " + where + ": the player is not running");
}

} // namespace

void sendStart(const ControlAddress& address, int32_t sourceId)
{
    ByteArray datagram(DATAGRAM_CAPACITY);
    datagram.writeByte(OP_CODE_SET);
    datagram.writeInt(CHANNEL_START);
    datagram.writeInt(static_cast<uint32_t>(sourceId));
    send(address, datagram);
}

void sendStop(const ControlAddress& address)
{
    ByteArray datagram(DATAGRAM_CAPACITY);
    datagram.writeByte(OP_CODE_SET);
    datagram.writeInt(CHANNEL_STOP);
    send(address, datagram);
}

bool hearsHeartbeat()
{
    Socket socket(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(HEARTBEAT_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(socket.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno == EADDRINUSE)
            throw Failure(EXIT_PORT_IN_USE,
                          "UDP port 7009 is in use: another program, such as the watchdog, listens for "
                          "the heartbeat, so it can't be heard here");
        throw Failure(EXIT_FAILED, std::string("cannot listen on UDP port 7009: ") + strerror(errno));
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(HEARTBEAT_PATIENCE_MS);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd waited = {socket.fd, POLLIN, 0};
        const int ready = left <= 0 ? 0 : poll(&waited, 1, static_cast<int>(left));
        if (ready == 0)
            return false;
        unsigned char ping[2];
        if (ready > 0 && recv(socket.fd, ping, sizeof(ping), 0) == 1 && ping[0] == 1)
            return true; // anything else is not the heartbeat
    }
}
