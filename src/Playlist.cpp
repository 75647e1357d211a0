// The record is all accessors; this file checks that the header stands on its own.
#include "Playlist.h"
