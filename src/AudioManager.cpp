/** The audio manager's thread and the control datagram. */

#include "AudioManager.h"

#include "AudioService.h"
#include "AutomationAPI.h"
#include "ByteArray.h"
#include "console/console.h"
#include "console/consoleCommands.h"
#include "globals.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>

using audioLibrarySpace::CServiceTime;

namespace
{

// The control datagram's numbers, shared with the server process.
constexpr uint8_t SET_REQUEST = 2;
constexpr uint32_t START_CHANNEL = 0x1202;
constexpr uint32_t STOP_CHANNEL = 0x1203;
constexpr uint32_t STOP_REPLY = 0x3a00;

constexpr uint32_t longestFullWaitNs = 10000000;
constexpr uint32_t cutWaitNs = 5000000;

/** Below the playback thread (99), above everything that does not carry audio. */
constexpr int audioManagerPriority = 80;

void addCommands(console& cmd)
{
    // clang-format off
    cmd.addCmd(nullptr, "blocks", "blocks\n  Displays a list of all instantiated blocks.\n", cmdPrintAllBlocks);
    cmd.addCmd(nullptr, "chains", "chains\n  Displays a list of all instantiated chains.\n", cmdPrintAllChains);
    cmd.addCmd(nullptr, "start", "start [playlist ID]\n  Starts the following playlist ID.\n", cmdStart);
    cmd.addCmd(nullptr, "stop", "stop\n  Stops the current playlist ID.\n", cmdStop);
    cmd.addCmd(nullptr, "connect", "connect [upstream] [downstream]\n  Connects two audio blocks together.\n", cmdConnect);
    cmd.addCmd(nullptr, "graph", "graph [block#]\n  Graphs the buffer of the mixer/alsa block\n", cmdGraphFIFO);
    cmd.addCmd(nullptr, "tl", "tl [tracelevel]\n  Sets the global trace level verboseness level (9-call trace).\n", cmdSetTracelevel);
    // clang-format on
}

/** Makes the calling thread real-time; goes on at normal priority where that is not allowed. */
void raisePriority()
{
    struct sched_param threadScheduling = {};
    threadScheduling.sched_priority = audioManagerPriority;
    if (sched_setscheduler(0, SCHED_FIFO, &threadScheduling) == 0) {
        LogEvent(LOG_DEBUG, "%s %d: Success! Policy = RealTime-FIFO, Priority = %d", __FILE__, __LINE__,
                 threadScheduling.sched_priority);
    } else {
        LogEvent(LOG_ERROR, "%s %d: Failed! Scheduling priority not set.", __FILE__, __LINE__);
    }
}

/** The control socket, bound and non-blocking; without it the daemon can't be told anything, so a failure is fatal. */
int openControlSocket()
{
    const int fd_audio_manager = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd_audio_manager == -1) {
        LogEvent(LOG_ERROR, "%s %d: Cannot create socket", __FILE__, __LINE__);
        exit(1);
    }
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port_number));
    if (bind(fd_audio_manager, reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr) == -1) {
        LogEvent(LOG_ERROR, "%s %d: Cannot bind socket", __FILE__, __LINE__);
        exit(1);
    }
    const int flags = fcntl(fd_audio_manager, F_GETFL, 0);
    fcntl(fd_audio_manager, F_SETFL, flags | O_NONBLOCK);
    return fd_audio_manager;
}

void handleStart(int32_t player_id)
{
    LogEvent(LOG_DEBUG, "%s %d: playlist manager received start request id = %d", __FILE__, __LINE__, player_id);
    (void)audioService->startPlayer(player_id); // the sender is told nothing, and the service has logged it
}

void handleStop()
{
    (void)audioService->stopPlayer(); // no player is no failure here
    // The protocol is one-way: the reply is composed and not sent.
    ByteArray reply(256);
    reply.writeInt(STOP_REPLY);
    reply.writeInt(0);
}

/** After a receive that brought no datagram, with `errno` still as it left it. */
void handleEmptyReceive(int fd_audio_manager, ssize_t recv_size)
{
    const int error = errno;
    if (error == EBADF || error == EAGAIN) {
        return;
    }
    if (error == ENOTSOCK) {
        LogEvent(LOG_ERROR, "%s %d: Sockfd is not a socket, sockfd %d.", __FILE__, __LINE__, fd_audio_manager);
        exit(1);
    }
    if (recv_size == 0) {
        return;
    }
    LogEvent(LOG_ERROR, "%s %d: playlist manager received error %d on recv. RecvSize %d", __FILE__, __LINE__, error,
             static_cast<int>(recv_size));
    errno = error; // logging may have used it
    perror("");
}

/** Takes one datagram and acts on it; what is longer than the buffer was cut by the receive. */
void takeDatagram(int fd_audio_manager)
{
    std::array<uint8_t, 1024> request_buffer;
    const ssize_t recv_size = recv(fd_audio_manager, request_buffer.data(), request_buffer.size(), 0);
    if (recv_size <= 0) {
        handleEmptyReceive(fd_audio_manager, recv_size);
        return;
    }
    ByteArray request(request_buffer.data(), static_cast<uint16_t>(recv_size));
    handleControlRequest(request);
}

/** Waits until a datagram is there or the time is over; true if there is one. */
bool waitForDatagram(int fd_audio_manager, uint32_t sleepTime)
{
    fd_set read_fd_set;
    FD_ZERO(&read_fd_set);
    FD_SET(fd_audio_manager, &read_fd_set);
    struct timeval timeout = {};
    timeout.tv_usec = static_cast<suseconds_t>(sleepTime / 1000);
    // A failed select leaves the set as it was; the receive then finds out what is wrong.
    (void)select(fd_audio_manager + 1, &read_fd_set, nullptr, nullptr, &timeout);
    return FD_ISSET(fd_audio_manager, &read_fd_set);
}

void runPass(console& cmd, int fd_audio_manager)
{
    (void)api->service(); // a failure is told there, and the next pass tries again
    cmd.service();
    fflush(stdout);

    CServiceTime now;
    now.setCurrentTime();
    if (audioService->servicePlayer() == PLAYER_STARTED) {
        (void)audioService->getAvgSampleRate(); // computed in every such pass, reported nowhere
    }
    const uint32_t sleepTime = sleepTimeNs(now, [] { return audioService->getNextServiceTime(); });
    if (waitForDatagram(fd_audio_manager, sleepTime)) {
        takeDatagram(fd_audio_manager);
    }
}

} // namespace

uint32_t sleepTimeNs(const CServiceTime& now, const std::function<CServiceTime()>& nextServiceTime)
{
    if (nextServiceTime() - now <= 0) {
        return 0;
    }
    // A time that has passed since the first question shows as a long wait, and is cut like one.
    const auto wait = static_cast<uint32_t>(nextServiceTime() - now);
    return wait > longestFullWaitNs ? cutWaitNs : wait;
}

void handleControlRequest(ByteArray& request)
{
    const uint8_t op_code = request.readByte();
    if (op_code != SET_REQUEST) {
        return;
    }
    const uint32_t channel_id = request.readInt();
    switch (channel_id) {
    case START_CHANNEL:
        handleStart(static_cast<int32_t>(request.readInt()));
        break;
    case STOP_CHANNEL:
        handleStop();
        break;
    default:
        LogEvent(LOG_DEBUG, "%s %d: playlist manager received unknown set request", __FILE__, __LINE__);
        break;
    }
}

void* AudioManager(void*)
{
    console cmd("Player:> ");
    addCommands(cmd);
    raisePriority();
    const int fd_audio_manager = openControlSocket();
    const ByteArray writeStatus(256); // never filled or sent: nothing goes back to the server process
    cmd.setPrompt();
    (void)api->init(); // without its socket each pass tries again

    for (;;) {
        runPass(cmd, fd_audio_manager);
    }
}
