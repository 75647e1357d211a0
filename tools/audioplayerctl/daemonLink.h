#pragma once

/**
 * The two one-way wires to the running daemon: control datagrams to it, and its heartbeat.
 */

#include <cstdint>
#include <string>

/** Where control datagrams go. */
struct ControlAddress {
    std::string host = "127.0.0.1";
    uint16_t port = 7004;
};

/**
 * Asks the daemon to start a source, an id of T_Audio_Sources. The daemon answers nothing: whether the source plays is
 * not known here. Throws Failure, EXIT_DAEMON_DOWN if nothing listens there on this machine.
 */
void sendStart(const ControlAddress& address, int32_t sourceId);

/** Asks the daemon to stop. As sendStart. */
void sendStop(const ControlAddress& address);

/**
 * Listens for the heartbeat, which comes once a second. It says that the process lives, not that audio plays.
 *
 * @return true if one came within 2.5 s
 * Throws Failure, EXIT_PORT_IN_USE if another program listens for it already.
 */
bool hearsHeartbeat();
