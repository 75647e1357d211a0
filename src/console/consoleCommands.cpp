/** The daemon's console commands. */

#include "console/consoleCommands.h"

void cmdPrintAllBlocks(const void*, const char*) {}

void cmdPrintAllChains(const void*, const char*) {}

void cmdStart(const void*, const char*) {}

void cmdStop(const void*, const char*) {}

void cmdConnect(const void*, const char*) {}

void cmdGraphFIFO(const void*, const char*) {}

void cmdSetTracelevel(const void*, const char*) {}
