#pragma once

/**
 * The daemon's console commands. Each handler is given the context it was registered with, which none reads, and the
 * line as typed. No command acts yet. Thread: audio manager, so that a handler may touch the player and the graph.
 */

void cmdPrintAllBlocks(const void* ctxtPtr, const char* a); ///< "blocks": the instantiated blocks
void cmdPrintAllChains(const void* ctxtPtr, const char* a); ///< "chains": the instantiated chains
void cmdStart(const void* ctxtPtr, const char* a);          ///< "start n": starts audio source n
void cmdStop(const void* ctxtPtr, const char* a);           ///< "stop": stops the player
void cmdConnect(const void* ctxtPtr, const char* a);        ///< "connect n m": connects two blocks
void cmdGraphFIFO(const void* ctxtPtr, const char* a);      ///< "graph n": draws the ring of a mixer or ALSA block
void cmdSetTracelevel(const void* ctxtPtr, const char* a);  ///< "tl n": sets the audio library's trace level
