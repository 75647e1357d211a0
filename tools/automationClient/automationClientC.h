#pragma once

/**
 * AutomationClient for callers that are not C++: the system tests load it with ctypes.
 *
 * All texts are zero-terminated or lent with their length; what is lent lives until the next call on the same peer.
 * Results are those of AutomationResult, 0 for success. No call throws, and FLUSH is led only where asked for.
 */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct AutomationPeer AutomationPeer;
typedef struct AutomationPeerRequest AutomationPeerRequest;

/** A peer on a connected descriptor, which it owns from now on. Freed by automationPeerFree. */
AutomationPeer* automationPeerAdopt(int descriptor);

/** A peer that connects; null on failure. */
AutomationPeer* automationPeerConnect(const char* host, unsigned short port, int timeoutMs);

void automationPeerFree(AutomationPeer* peer);

int automationPeerSendRaw(AutomationPeer* peer, const char* bytes, size_t numBytes, int timeoutMs);

/** Receives the next document, which automationPeerDocument then lends. */
int automationPeerNext(AutomationPeer* peer, int timeoutMs);

/** Sends a request; with `isFlushed`, behind AutomationClient::FLUSH. automationPeerNumber then lends its number. */
int automationPeerSend(AutomationPeer* peer, const AutomationPeerRequest* request, int isFlushed, int timeoutMs);

/** Sends a request and receives its answer; documents in between are kept for automationPeerTakeOther. */
int automationPeerTransact(AutomationPeer* peer, const AutomationPeerRequest* request, int isFlushed, int timeoutMs);

/** The last document received: its bytes and whether it was cut. Never null. */
const char* automationPeerDocument(AutomationPeer* peer, size_t* numBytes, int* isCut);

/** The transactionNumber of the last request sent. */
const char* automationPeerNumber(AutomationPeer* peer);

/** Moves the oldest document that came in between to where automationPeerDocument lends it; 0 if there is none. */
int automationPeerTakeOther(AutomationPeer* peer);

/** Bytes of a document that has begun to come and not ended. */
size_t automationPeerPending(AutomationPeer* peer);

/** The last failure in words. */
const char* automationPeerError(AutomationPeer* peer);

/** The lines of the last document's TransactionLog, each ending in a newline. */
const char* automationPeerLog(AutomationPeer* peer, size_t* numBytes);

/** A request; a null or empty number asks for one that was never used. Freed by automationPeerRequestFree. */
AutomationPeerRequest* automationPeerRequestNew(const char* type, const char* command, const char* number);
void automationPeerRequestFree(AutomationPeerRequest* request);

/** Adds an element below `parent`, or below the root for -1, and answers its index; -1 if there is no such parent. */
int automationPeerRequestElement(AutomationPeerRequest* request, int parent, const char* name);

/** Adds an attribute to an element, or to the root for -1; -1 if there is no such element. */
int automationPeerRequestAttribute(AutomationPeerRequest* request, int element, const char* name, const char* value);

#ifdef __cplusplus
}
#endif
