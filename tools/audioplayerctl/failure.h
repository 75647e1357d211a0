#pragma once

/**
 * How a command of audioplayerctl fails: one line for stderr and the exit status. Thrown by the commands, caught by
 * main alone; the tool has no state that a failure could leave half changed (each write is one transaction).
 */

#include <stdexcept>
#include <string>

/** Exit statuses; the manual page lists them. */
enum exitStatus_e : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,       ///< the database or the system refused
    EXIT_USAGE = 2,        ///< the command line makes no sense
    EXIT_DAEMON_DOWN = 3,  ///< no heartbeat, or nothing listens on the control or the automation port
    EXIT_NOT_FOUND = 4,    ///< no such playlist, entry, source, file or database
    EXIT_REFUSED = 5,      ///< it exists already, or it can't be expressed
    EXIT_PORT_IN_USE = 6,  ///< another program, such as the watchdog, listens for the heartbeat
    EXIT_PLAYER_ERROR = 7, ///< the player answered a transaction with "ERROR"
    EXIT_SEAT_TAKEN = 8,   ///< another peer holds the automation seat, or took it
    EXIT_NO_ANSWER = 9,    ///< the player did not answer in time, or not whole
};

class Failure : public std::runtime_error
{
public:
    Failure(exitStatus_e exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}

    const exitStatus_e status;
};
