#pragma once

/**
 * audioplayerctl in the automation seat: one connection to TCP port 8500 for one command.
 *
 *   in:  HOST[:PORT] of the command line
 *   out: answers to requests; what is done to the seat, and failures, in words on stderr
 *
 * The player serves one peer, the newest. So connecting is told, and refused while another peer is seen there, unless
 * the person wants it. Peers are seen on this machine only.
 */

#include "AutomationClient.h"

#include <string>
#include <vector>

struct AutomationAddress {
    std::string host;
    uint16_t port = AutomationClient::PORT;
};

/** Takes "HOST" or "HOST:PORT" apart. Throws Failure, EXIT_USAGE, if the port is none. */
AutomationAddress parseAutomationAddress(const std::string& text);

/** Whether the table, in the form of /proc/net/tcp, has an established connection on this local port. */
bool isSeatHeld(const std::string& table, uint16_t port);

class AutomationSession
{
public:
    /**
     * Connects, and says so on stderr.
     *
     * @param isSeatTaken  also while another peer is seen there
     * Throws Failure: EXIT_SEAT_TAKEN, EXIT_DAEMON_DOWN, EXIT_NOT_FOUND, EXIT_NO_ANSWER.
     */
    AutomationSession(const AutomationAddress& address, bool isSeatTaken, double timeoutSeconds);

    /** Sends a request and answers its answer, whatever its status. Throws Failure if there is none. */
    AutomationDocument request(const AutomationRequest& request);

    /**
     * As request, and shows the TransactionLog: on stdout, or for "ERROR" on stderr before EXIT_PLAYER_ERROR.
     *
     * @return its lines: what the player could not do stands in them, for a "success" too
     */
    std::vector<std::string> carryOut(const AutomationRequest& request);

    /** The last information that came while an answer was awaited; without a root if none did. */
    const AutomationDocument& lastInfo() const { return info; }

    /** The next document of type "info"; waits without limit if `isPatient`. */
    AutomationDocument nextInfo(bool isPatient);

private:
    AutomationClient client;
    AutomationDocument info;
    const int timeoutMs;
};

/** Throws for an answer of status "ERROR", with the log on stderr. */
void expectSuccess(const AutomationDocument& answer);
