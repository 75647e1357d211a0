#pragma once

/**
 * What the command line says, as the commands read it.
 */

#include "automationLink.h"
#include "daemonLink.h"

#include <string>
#include <vector>

struct Options {
    std::string database = "../audioplayerdatabase/audioDatabase.db"; // as the daemon finds it
    ControlAddress control;
    std::string host; ///< as given, HOST or HOST:PORT; empty if it wasn't
    bool isJson = false;
    bool isCart = false;
    std::string playlist; ///< id or name
    std::string source;   ///< id or name
    std::vector<std::string> files;
    std::string jump;
    int sequence = 0;
    int newSequence = 0;

    // the automation commands
    bool isSeatTaken = false; ///< --take-seat
    double timeoutSeconds = 30;
    std::string base; ///< where relative files begin; empty: the working directory
    bool isAudioDeleted = false;
    bool isLogCleared = false;
    bool isLogKept = false; ///< --keep-log: as without it, for those who want it written
    bool isOverTcp = false; ///< stop: by a transaction rather than by a datagram
    bool isFollowed = false;
    bool isCsv = false;
    bool isLogDeleted = false;

    // streams
    std::string stream; ///< id or name; of a new one the name
    std::string url;
    std::string newName;
    int livewire = 0; ///< destination, from 1; 0 if none is given
    double probeSeconds = 20;
    bool isTraced = false;

    int limit = 0; ///< most entries of the as-played log; 0: all
};
