#pragma once

/**
 * The audio manager: the real-time thread on which all control work and the service of the player are taken in turn.
 *
 *   in:  control datagrams on UDP port `port_number`, at most one a pass; the monotonic clock
 *   out: calls of `api`, `audioService` and the console; nothing is sent back on the control socket
 *
 * One pass: automation, console, stdout flushed, clock read, player serviced, wait, datagram. Nothing else touches the
 * player, so none of them needs a lock; each delays the player by as long as it takes, so none may block.
 */

#include "audioLibrary/serviceTime.h"

#include <cstdint>
#include <functional>

class ByteArray;

/**
 * Thread entry of the audio manager; the globals `api` and `audioService` must be set. Never returns: what can't be
 * repaired (no socket, no port) ends the process with status 1.
 */
void* AudioManager(void* ignore);

/**
 * The wait of one pass, in nanoseconds. Nothing that is due is waited for; a wait of up to 10 ms is slept in full, so
 * that the player is served on time; a longer one is cut to 5 ms, so that automation, console and datagrams are not
 * kept waiting. The difference is 32 bits wide and wraps.
 *
 * @param now              read before the player was serviced: its work is part of the wait
 * @param nextServiceTime  when the player next wants service; asked a second time if the first answer lies ahead
 */
uint32_t sleepTimeNs(const audioLibrarySpace::CServiceTime& now,
                     const std::function<audioLibrarySpace::CServiceTime()>& nextServiceTime);

/**
 * Acts on one control datagram from its first byte; integers low byte first, missing ones read as 0:
 *
 *   op_code 1 byte: 2    channel_id 4 bytes: 0x1202 start, 0x1203 stop    player_id 4 bytes, signed, with start only
 *
 * Another channel is logged, another op code is dropped without a word. Thread: audio manager.
 */
void handleControlRequest(ByteArray& request);
