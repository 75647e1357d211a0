/** The heartbeat's thread. */

#include "Heartbeat.h"

#include "globals.h"

#include <cstdint>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

void* Heartbeat(void*)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        LogEvent(LOG_ERROR, "%s %d: Cannot create socket for audio player heartbeat", __FILE__, __LINE__);
        exit(1);
    }
    struct sockaddr_in watchdogAddr = {};
    watchdogAddr.sin_family = AF_INET;
    watchdogAddr.sin_port = htons(7009);
    watchdogAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    for (;;) {
        const uint8_t ping = 1;
        if (sendto(fd, &ping, sizeof ping, 0, reinterpret_cast<const struct sockaddr*>(&watchdogAddr),
                   sizeof watchdogAddr) == -1) {
            LogEvent(LOG_ERROR, "%s %d: Cannot send ping to watchdog", __FILE__, __LINE__);
            exit(1);
        }
        usleep(1000000);
    }
}
