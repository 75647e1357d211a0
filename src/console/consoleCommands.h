#pragma once

/**
 * The daemon's console commands: lines of the console come in; calls of the player and the graph go out, answers to
 * standard output. Each handler is given the context it was registered with, which none reads, and the line as typed.
 *
 * Numbers are decimal; what does not fit 32 bits becomes the nearest that does. Blocks are numbered as "blocks" lists
 * them. Thread: audio manager, so that a handler may touch the player and the graph; the loop waits meanwhile.
 */

/**
 * "blocks": the status of every block. "blocks n": of block n. A block that is not there ends the process: look at the
 * list first.
 */
void cmdPrintAllBlocks(const void* ctxtPtr, const char* a);
void cmdPrintAllChains(const void* ctxtPtr, const char* a); ///< "chains": the status of every chain
void cmdStart(const void* ctxtPtr, const char* a);          ///< "start n": starts audio source n; else nothing
void cmdStop(const void* ctxtPtr, const char* a);           ///< "stop": stops and deletes the player
/** "connect n m": connects the first output of block n to the next free input of block m; nothing on a bad line. */
void cmdConnect(const void* ctxtPtr, const char* a);
void cmdGraphFIFO(const void* ctxtPtr, const char* a);     ///< "graph n": draws the ring of a mixer or ALSA block
void cmdSetTracelevel(const void* ctxtPtr, const char* a); ///< "tl n": sets the audio library's trace level

/** Does nothing; nothing calls it. */
void listStreams();
