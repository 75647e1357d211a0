#pragma once

/**
 * Thread entry of the heartbeat: one byte to the watchdog at 127.0.0.1, UDP port 7009, at once and then each second.
 *
 * It does not look at the audio manager: the watchdog learns that the process lives, not that it plays. Never returns;
 * a socket that can't be made or a byte that can't be sent ends the process with status 1.
 */
void* Heartbeat(void* ignore);
